#pragma once

// The C interface of cuBLAS, version 13, as far as the host stand-in offers it: handles, y = op(A) x, C = op(A) op(A)^T
// and the sum of absolute values, computed by OpenBLAS. Names, values, argument order and status codes are those of
// cuBLAS. The header is valid C.
//
// Rules that hold for every call:
// - A call that fails writes none of its outputs. It does not become the thread's last CUDA error.
// - A null handle, or one that is not alive, is CUBLAS_STATUS_NOT_INITIALIZED; arguments that BLAS does not define
//   are CUBLAS_STATUS_INVALID_VALUE. Where cuBLAS would make the device fault later, the stand-in refuses at once:
//   operands that do not lie in one block of device memory each are CUBLAS_STATUS_INVALID_VALUE.
// - A device that has a fault, or that is not the calling thread's current one, is CUBLAS_STATUS_EXECUTION_FAILED.
// - Matrices are stored column by column. Products are queued on the handle's stream; scalars in host memory are read
//   during the call. A sum with its result in host memory waits for it.
// - Calls may be made from any thread. How many threads OpenBLAS uses is its own setting (OPENBLAS_NUM_THREADS), not
//   QX_HOSTCUDA_THREADS, since it is one for the whole process and the client may use OpenBLAS too. With 1, or with
//   the serial build of OpenBLAS, everything runs on the stream's thread; so it does under ThreadSanitizer.

#include <cuda_runtime_api.h>

#define CUBLASWINAPI

#if defined(__cplusplus)
#define QX_HOSTCUBLAS_CALL extern "C" QX_HOSTCUDA_API
#else
#define QX_HOSTCUBLAS_CALL extern QX_HOSTCUDA_API
#endif

/// Result of every call.
typedef enum
{
    CUBLAS_STATUS_SUCCESS = 0,
    CUBLAS_STATUS_NOT_INITIALIZED = 1,
    CUBLAS_STATUS_ALLOC_FAILED = 3,
    CUBLAS_STATUS_INVALID_VALUE = 7,
    CUBLAS_STATUS_ARCH_MISMATCH = 8,
    CUBLAS_STATUS_MAPPING_ERROR = 11,
    CUBLAS_STATUS_EXECUTION_FAILED = 13,
    CUBLAS_STATUS_INTERNAL_ERROR = 14,
    CUBLAS_STATUS_NOT_SUPPORTED = 15,
    CUBLAS_STATUS_LICENSE_ERROR = 16
} cublasStatus_t;

/// Which triangle of a symmetric matrix is meant.
typedef enum
{
    CUBLAS_FILL_MODE_LOWER = 0,
    CUBLAS_FILL_MODE_UPPER = 1,
    CUBLAS_FILL_MODE_FULL = 2
} cublasFillMode_t;

/// What is done to a matrix before it is used: nothing, transposed, transposed and conjugated.
typedef enum
{
    CUBLAS_OP_N = 0,
    CUBLAS_OP_T = 1,
    CUBLAS_OP_C = 2,
    CUBLAS_OP_HERMITAN = 2,
    CUBLAS_OP_CONJG = 3
} cublasOperation_t;

/// Where the scalars of a call lie.
typedef enum
{
    CUBLAS_POINTER_MODE_HOST = 0,
    CUBLAS_POINTER_MODE_DEVICE = 1
} cublasPointerMode_t;

struct cublasContext;
/// Stands for a device, a stream of it and a pointer mode.
typedef struct cublasContext* cublasHandle_t;

/// Makes a handle of the calling thread's current device, with its default stream and host pointer mode.
/// CUBLAS_STATUS_INVALID_VALUE: `handle` is null; CUBLAS_STATUS_NOT_INITIALIZED: there is no device that works.
QX_HOSTCUBLAS_CALL cublasStatus_t cublasCreate_v2(cublasHandle_t* handle);
/// Gives a handle up; what it has queued still runs.
QX_HOSTCUBLAS_CALL cublasStatus_t cublasDestroy_v2(cublasHandle_t handle);
/// Later calls use this stream of the handle's device. CUBLAS_STATUS_INVALID_VALUE: no such stream.
QX_HOSTCUBLAS_CALL cublasStatus_t cublasSetStream_v2(cublasHandle_t handle, cudaStream_t streamId);
QX_HOSTCUBLAS_CALL cublasStatus_t cublasGetStream_v2(cublasHandle_t handle, cudaStream_t* streamId);
QX_HOSTCUBLAS_CALL cublasStatus_t cublasGetPointerMode_v2(cublasHandle_t handle, cublasPointerMode_t* mode);
QX_HOSTCUBLAS_CALL cublasStatus_t cublasSetPointerMode_v2(cublasHandle_t handle, cublasPointerMode_t mode);

/// The enumerator's name and its meaning; texts are never freed.
QX_HOSTCUBLAS_CALL const char* cublasGetStatusName(cublasStatus_t status);
QX_HOSTCUBLAS_CALL const char* cublasGetStatusString(cublasStatus_t status);

/// The sum of |x[i]| of `n` elements; 0 where `n` or `incx` is not positive.
QX_HOSTCUBLAS_CALL cublasStatus_t cublasSasum_v2(cublasHandle_t handle, int n, const float* x, int incx, float* result);
QX_HOSTCUBLAS_CALL cublasStatus_t cublasDasum_v2(
    cublasHandle_t handle, int n, const double* x, int incx, double* result);

/// y = alpha op(A) x + beta y for a matrix of m rows and n columns. With beta = 0, y is not read.
QX_HOSTCUBLAS_CALL cublasStatus_t cublasSgemv_v2(cublasHandle_t handle, cublasOperation_t trans, int m, int n,
    const float* alpha, const float* A, int lda, const float* x, int incx, const float* beta, float* y, int incy);
QX_HOSTCUBLAS_CALL cublasStatus_t cublasDgemv_v2(cublasHandle_t handle, cublasOperation_t trans, int m, int n,
    const double* alpha, const double* A, int lda, const double* x, int incx, const double* beta, double* y, int incy);

/// C = alpha op(A) op(A)^T + beta C for op(A) of n rows and k columns; only one triangle of C is read and written, and
/// with beta = 0 not even read.
QX_HOSTCUBLAS_CALL cublasStatus_t cublasSsyrk_v2(cublasHandle_t handle, cublasFillMode_t uplo, cublasOperation_t trans,
    int n, int k, const float* alpha, const float* A, int lda, const float* beta, float* C, int ldc);
QX_HOSTCUBLAS_CALL cublasStatus_t cublasDsyrk_v2(cublasHandle_t handle, cublasFillMode_t uplo, cublasOperation_t trans,
    int n, int k, const double* alpha, const double* A, int lda, const double* beta, double* C, int ldc);

#undef QX_HOSTCUBLAS_CALL

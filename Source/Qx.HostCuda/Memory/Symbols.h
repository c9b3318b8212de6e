#pragma once

#include <cstddef>
#include <span>

namespace Qx::HostCuda
{

/// Bytes that a copy to or from a symbol may touch, from its address on: the size of the variable of which it is the
/// address; 0 if it is the address of none that can be written.
///
/// The variables are those of the symbol table in the file of the loaded module: a prefix such as __device__, which
/// functions bear too, cannot make a variable known. So a global variable without the prefix passes for a symbol. A
/// module without the table, stripped or no longer there, has one variable from any address of its writable data to the
/// end of that.
[[nodiscard]] std::size_t GetSymbolSize(const void* pSymbol) noexcept;

/// Writes the name that a function has for the linker, without an end mark and as far as there is room, and returns its
/// length; 0 if the symbol table of its module is not there. Takes no memory, so that signal handlers may call it.
[[nodiscard]] std::size_t GetFunctionName(const void* pFunction, std::span<char> vName) noexcept;

} // namespace Qx::HostCuda

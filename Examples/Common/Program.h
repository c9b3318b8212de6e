#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Qx::Examples
{

/// What a program's command line says.
struct SCommandLine
{
    std::vector<std::string> vInputs;             ///< the arguments that are no options, none of them empty
    std::map<std::string, std::string> xSettings; ///< option to its value, "-o" to "out.png"

    /// The value of an option, or @p sDefault when it was not given.
    std::string Setting(const std::string& sOption, const std::string& sDefault) const;
};

/// What a program understands.
struct SProgram
{
    const char* pcName;
    const char* pcHelp;                ///< what `--help` prints
    std::vector<std::string> vOptions; ///< options that are followed by a value
    std::size_t nMaxInputs;            ///< how many other arguments it takes
};

/// Takes the command line apart, answers `--help`, and runs the program's body. An exception that leaves the body
/// becomes one line on standard error, the whole chain of a `CQxException` included.
/// @return the exit code: 0 when the body returned and what it printed was written, 2 for a command line that the
/// program does not understand, 1 for everything else
int RunProgram(const SProgram& xProgram, int iArguments, char** ppcArguments,
    const std::function<void(const SCommandLine&)>& xBody);

/// Prints the platform that the library runs on and the calling thread's device.
void PrintPlatform();

/// Measures how long a step of work on the device takes, over several runs of it.
class CStepTimer
{
public:
    /// @param pcName what the step is called in the report; must outlive this object
    explicit CStepTimer(const char* pcName) : m_pcName(pcName) {}

    /// Runs @p xStep, waits until the device has done what it queued, and records the time that both took.
    void Run(const std::function<void()>& xStep);

    /// Prints the time of the first run, the median of the runs after it, and the throughput at that median.
    /// @param nBytes the bytes that one run moves
    void Print(std::size_t nBytes) const;

private:
    const char* m_pcName;
    std::vector<double> m_vSeconds;
};

} // namespace Qx::Examples

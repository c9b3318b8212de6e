#pragma once

#include <string>
#include <vector>

namespace Qx::Test
{

/// What a runtime's headers say of a name: the value of a constant or the mangled type of a function.
struct SFact
{
    const char* pcName;
    std::string sFact;
};

/// The answers of the stand-in's headers.
std::vector<SFact> GetStandInFacts();
/// The answers of the toolkit's headers.
std::vector<SFact> GetToolkitFacts();

} // namespace Qx::Test

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Qx::Test
{

/// A value that a runtime's headers give to an expression.
struct SFact
{
    std::string sExpression;
    long long iValue = 0;
};

/// The answers of the stand-in's headers.
std::vector<SFact> GetStandInFacts();
/// The answers of the toolkit's headers.
std::vector<SFact> GetToolkitFacts();

} // namespace Qx::Test

#pragma once

namespace Qx::Test
{

// The entries of a client's plug-in.

using PPluginVersion = int (*)();
using PPluginUse = bool (*)(int iUse); ///< true when the use numbered so did what it should
inline constexpr int c_iPluginUses = 10;

} // namespace Qx::Test

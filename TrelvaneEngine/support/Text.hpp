// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Small text helpers shared by the stages and the application.

#include <string>
#include <string_view>
#include <vector>

namespace trelvane {

// The parts with `separator` between each two: "" for none, the part itself for one.
std::string joined(const std::vector<std::string>& parts, std::string_view separator);

} // namespace trelvane

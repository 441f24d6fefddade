// The subcommands. Each adds itself to the application and returns the
// function main() runs when the user picked it: the process's exit code.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

namespace krm::tool {

using Run = std::function<int()>;

// Exit codes shared by every subcommand.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;    // the work was done and something differs
inline constexpr int kExitBadInput = 2;  // input or arguments unusable

Run AddInspect(CLI::App &stApp);
Run AddCapture(CLI::App &stApp);
Run AddRoad(CLI::App &stApp);
Run AddTso(CLI::App &stApp);

// Prints "krm-mbuf: <what>" on standard error.
void Complain(const std::string &strWhat);

}  // namespace krm::tool

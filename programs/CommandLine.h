// The command line of a program, with the options that every program has.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

class CommandLine : public CLI::App {
 public:
  // Declares --help, --version and --config; the other options follow. `argv0` names the program.
  CommandLine(const std::string& description, const char* argv0);

  // Reads the arguments, and the file that --config names. False when all that is wanted is the
  // help or the version, which is printed then. Throws CLI::Error or std::invalid_argument.
  bool read(int argc, const char* const* argv);
};

// The text with its control characters escaped: whoever may publish chooses it.
std::string printable(const std::string& text);

// Writes at once. Throws std::runtime_error when that fails.
void print(const std::string& text);

// Runs a program to its end. What it throws becomes a line on the standard error and a status: 2
// when the program cannot be run as it is told to (CLI::Error, std::invalid_argument), or else 1.
int runProgram(const char* argv0, const std::function<void()>& program);

#include "CommandLine.h"

#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>

namespace {

std::string nameOf(const char* argv0) { return std::filesystem::path(argv0).filename(); }

std::string inOurWords(const std::string& fault) {
  const std::string unknown = "INI was not able to parse ";
  if (fault.rfind(unknown, 0) != 0) return fault;
  const std::string name = fault.substr(unknown.size());
  const bool isSection = name.size() > 3 && name.compare(name.size() - 3, 3, ".++") == 0;
  return isSection ? "there is no section '" + name.substr(0, name.size() - 3) + "'"
                   : "there is no option '" + name + "'";
}

int fail(const char* argv0, const std::exception& fault, int status) {
  std::cerr << argv0 << ": " << fault.what() << std::endl;
  return status;
}

}  // namespace

CommandLine::CommandLine(const std::string& description, const char* argv0)
    : CLI::App(description, nameOf(argv0)) {
  get_formatter()->column_width(26);
  set_help_flag("--help", "print this text");
  set_version_flag("--version", nameOf(argv0) + " " ORV_VERSION, "print the version");
  set_config("--config", "",
             "read options from FILE, each on a line of its own: NAME = VALUE, with\n"
             "the names below. An option on the command line counts instead")
      ->type_name("FILE");
  allow_config_extras(CLI::config_extras_mode::error);
}

bool CommandLine::read(int argc, const char* const* argv) {
  try {
    parse(argc, argv);
    return true;
  } catch (const CLI::ConfigError& fault) {
    const std::string file = get_option("--config")->as<std::string>();
    throw std::invalid_argument(file + ": " + inOurWords(fault.what()));
  } catch (const CLI::CallForHelp&) {
    print(help());
  } catch (const CLI::CallForVersion& version) {
    print(version.what() + std::string("\n"));
  }
  return false;
}

std::string printable(const std::string& text) {
  constexpr const char* digits = "0123456789abcdef";
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const bool isHigh = byte == 0xc2 && at + 1 < text.size() &&
                        static_cast<unsigned char>(text[at + 1]) < 0xa0;  // U+0080 to U+009F
    if (byte < 0x20 || byte == 0x7f || isHigh) {
      result.append({'\\', 'x', digits[byte >> 4U], digits[byte & 15U]});
    } else {
      result += text[at];
    }
  }
  return result;
}

void print(const std::string& text) {
  if (!(std::cout << text << std::flush)) throw std::runtime_error("cannot write the output");
}

int runProgram(const char* argv0, const std::function<void()>& program) {
  try {
    program();
    return 0;
  } catch (const CLI::Error& fault) {
    return fail(argv0, fault, 2);
  } catch (const std::invalid_argument& fault) {
    return fail(argv0, fault, 2);
  } catch (const std::exception& fault) {
    return fail(argv0, fault, 1);
  }
}

// The command line of a program: one shape for all of them.
//
// --help and --version go to standard output and end the program with 0. A mistake is told on
// standard error, with the program's name and where help is, and ends it with 2.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace posix {

class CommandLine : public CLI::App {
  public:
    CommandLine(const std::string& program, const std::string& description,
                const std::string& footer);

    // An option whose every value goes through `parser`, which returns an empty optional and an
    // `error` for a wrong one, and is handed to `keep`. It may be given once; see take_all().
    template <typename Parse, typename Keep>
    CLI::Option* AddParsed(const std::string& name, Parse parser, Keep keep,
                           const std::string& help) {
        return add_option(name, help)->allow_extra_args(false)->check([=](const std::string& text) {
            std::string error;
            if (auto value = parser(text, error)) keep(std::move(*value));
            return error;
        });
    }

    // For `finish`: a mistake unless exactly one of these options was given.
    static void RequireOneOf(const std::vector<const CLI::Option*>& options);

    // `finish` looks at what the options make together; it throws CLI::ParseError. Returns the exit
    // status when the program is to end at once.
    std::optional<int> Parse(int argc, const char* const* argv,
                             const std::function<void()>& finish);
};

}  // namespace posix

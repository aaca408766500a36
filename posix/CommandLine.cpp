#include "posix/CommandLine.h"

#include <algorithm>

namespace posix {
namespace {

constexpr int kUsageError = 2;

// Of the arguments that nobody wants, an option is the likeliest to be the mistake: what follows it
// was meant for it.
std::string unexpected(const std::vector<std::string>& arguments) {
    const auto option = std::find_if(arguments.begin(), arguments.end(),
                                     [](const auto& text) { return text.starts_with('-'); });
    return option != arguments.end() ? "unknown option " + *option
                                     : "unexpected argument " + arguments.front();
}

}  // namespace

CommandLine::CommandLine(const std::string& program, const std::string& description,
                         const std::string& footer)
    : CLI::App(description, program) {
    set_version_flag("--version", XJ_VERSION);
    this->footer(footer);
    failure_message([](const CLI::App* app, const CLI::Error& error) {
        const bool extras = dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr;
        return app->get_name() + ": " + (extras ? unexpected(app->remaining(true)) : error.what()) +
               "\nRun with --help for more information.\n";
    });
}

void CommandLine::RequireOneOf(const std::vector<const CLI::Option*>& options) {
    const auto given = std::count_if(options.begin(), options.end(),
                                     [](const CLI::Option* option) { return option->count() > 0; });
    if (given == 1) return;
    std::string names;
    for (const CLI::Option* option : options)
        names += (names.empty() ? "" : ", ") + option->get_name();
    throw CLI::ValidationError(given == 0 ? "one of " + names + " is needed"
                                          : "only one of " + names + " can be given");
}

std::optional<int> CommandLine::Parse(int argc, const char* const* argv,
                                      const std::function<void()>& finish) {
    try {
        parse(argc, argv);
        finish();
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        return exit(error) == 0 ? 0 : kUsageError;
    }
}

}  // namespace posix

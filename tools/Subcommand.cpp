#include "Subcommand.h"

#include <algorithm>
#include <charconv>
#include <memory>

#include "i18n.h"
#include "terminal_text.h"

namespace tool {
namespace {

constexpr std::size_t INDENT = 2;
constexpr std::size_t EXPLANATION = 30;  ///< the column in which explanations begin

/// The lines of `text`, each wrapped at `columns`.
std::vector<std::string> linesOf(std::string_view text, std::size_t columns) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        for (auto& line : wrapped(text.substr(0, end), columns)) lines.push_back(std::move(line));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

/// A name and, in a column of its own, what it means.
std::string entry(const std::string& name, const std::string& explanation) {
    std::string text;
    std::string start = std::string(INDENT, ' ') + name;
    if (explanation.empty() || width(start) >= EXPLANATION) {
        text = start + "\n";
        start.clear();
    }
    for (const auto& line : linesOf(explanation, TERMINAL_COLUMNS - EXPLANATION)) {
        text += leftAligned(start, EXPLANATION) + line + "\n";
        start.clear();
    }
    return text;
}

/// The option that `text`, CLI11's, is about; null if it names none.
const CLI::Option* optionIn(const std::string& text, const CLI::App& options) {
    const CLI::Option* found = nullptr;
    for (const CLI::Option* option : options.get_options())
        if (text.find(option->get_name()) != std::string::npos &&
            (found == nullptr || option->get_name().size() > found->get_name().size()))
            found = option;
    return found;
}

/// What people call an option: an argument without dashes has the name that the usage shows.
std::string nameOf(const CLI::Option& option) {
    return option.get_option_text().empty() ? option.get_name() : option.get_option_text();
}

/// The two options that CLI11 says something about, such as "--key requires --certificate".
std::pair<std::string, std::string> twoOptionsIn(const std::string& text) {
    return {text.substr(0, text.find(' ')), text.substr(text.rfind(' ') + 1)};
}

/// The name in the configuration file that CLI11 complains about.
std::string nameIn(const CLI::ConfigError& error) {
    constexpr std::string_view UNKNOWN = "INI was not able to parse ";
    const std::string text = error.what();
    if (text.rfind(UNKNOWN, 0) == 0) return text.substr(UNKNOWN.size());
    return text.substr(0, text.find(':'));
}

std::string unexpected(const std::vector<std::string>& words) {
    return filled(tr("unexpected argument: %s"), CLI::detail::join(words, " ").c_str());
}

}  // namespace

Subcommand::Subcommand(CLI::App& application, const std::string& name, const std::string& description,
                       const std::string& usage)
    : m_options(application.add_subcommand(name, description)), m_usage(usage) {
    m_options->formatter(std::make_shared<HelpFormatter>(usage));
    m_options->set_help_flag("-h,--help", tr("Show this help"));
}

HelpFormatter::HelpFormatter(std::string usage) : m_usage(std::move(usage)) {
    label("REQUIRED", tr("(required)"));
    label("Needs", tr("Needs"));
    label("Excludes", tr("Excludes"));
}

std::string HelpFormatter::make_description(const CLI::App* app) const {
    std::string text;
    for (const auto& line : linesOf(app->get_description(), TERMINAL_COLUMNS)) text += line + "\n";
    return text;
}

std::string HelpFormatter::make_usage(const CLI::App* /*app*/, std::string /*name*/) const {
    return filled(tr("Usage: %s"), m_usage.c_str()) + "\n";
}

std::string HelpFormatter::make_group(std::string /*group*/, bool isPositional,
                                      std::vector<const CLI::Option*> options) const {
    return Formatter::make_group(isPositional ? tr("Arguments") : tr("Options"), isPositional,
                                 std::move(options));
}

std::string HelpFormatter::make_option(const CLI::Option* option, bool isPositional) const {
    const std::string name =
        isPositional ? nameOf(*option) : make_option_name(option, false) + make_option_opts(option);
    return entry(name, make_option_desc(option));
}

std::string HelpFormatter::make_subcommand(const CLI::App* subcommand) const {
    return entry(subcommand->get_name(), subcommand->get_description());
}

std::string HelpFormatter::make_footer(const CLI::App* app) const {
    std::string text;
    for (const auto& line : linesOf(app->get_footer(), TERMINAL_COLUMNS)) text += line + "\n";
    return text;
}

CLI::Validator numberFrom(long least, long most) {
    const auto check = [least, most](const std::string& text) -> std::string {
        long number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error == std::errc() && end == text.data() + text.size() && number >= least && number <= most)
            return "";
        return filled(tr("expected a number from %ld to %ld, not \"%s\""), least, most, text.c_str());
    };
    return {check, std::to_string(least) + "-" + std::to_string(most)};
}

CLI::Validator oneOf(std::vector<std::string> names) {
    const std::string list = CLI::detail::join(names, ", ");
    const auto check = [names = std::move(names), list](const std::string& text) -> std::string {
        if (std::find(names.begin(), names.end(), text) != names.end()) return "";
        return filled(tr("expected one of %s, not \"%s\""), list.c_str(), text.c_str());
    };
    return {check, "{" + list + "}"};
}

void refuseExtras(const std::vector<std::string>& words) {
    if (!words.empty()) throw CLI::ValidationError(unexpected(words));
}

std::string reasonOf(const CLI::ParseError& error, const CLI::App& application, const CLI::App& options) {
    const CLI::Option* option = optionIn(error.what(), options);
    const auto extras = application.remaining(true);
    const bool lacksSubcommand =
        dynamic_cast<const CLI::RequiredError*>(&error) != nullptr && &options == &application;
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr || (lacksSubcommand && !extras.empty()))
        return unexpected(extras);
    if (lacksSubcommand) return tr("a subcommand is missing");
    if (dynamic_cast<const CLI::FileError*>(&error) != nullptr)
        return filled(tr("the configuration file cannot be read: %s"),
                      application.get_config_ptr()->as<std::string>().c_str());
    if (const auto* const name = dynamic_cast<const CLI::ConfigError*>(&error); name != nullptr)
        return filled(tr("unknown name in the configuration file: %s"), nameIn(*name).c_str());
    const auto [first, second] = twoOptionsIn(error.what());
    if (dynamic_cast<const CLI::RequiresError*>(&error) != nullptr)
        return filled(tr("%s needs %s"), first.c_str(), second.c_str());
    if (dynamic_cast<const CLI::ExcludesError*>(&error) != nullptr)
        return filled(tr("%s and %s do not go together"), first.c_str(), second.c_str());
    if (option == nullptr) return error.what();
    const std::string name = nameOf(*option);
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr)
        return filled(tr("%s is missing"), name.c_str());
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr)
        return filled(option->count() > 1 ? tr("%s is given more than once") : tr("%s needs a value"),
                      name.c_str());
    if (dynamic_cast<const CLI::ConversionError*>(&error) != nullptr)
        return filled(tr("%s does not take the value \"%s\""), name.c_str(),
                      CLI::detail::join(option->results(), " ").c_str());
    return error.what();
}

}  // namespace tool

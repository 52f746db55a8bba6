#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tool {

/// One subcommand of the command `fiscora`. Its constructor adds it, with its options, to the application.
class Subcommand {
  public:
    /// `description` and `usage` are in the user's language.
    Subcommand(CLI::App& application, const std::string& name, const std::string& description,
               const std::string& usage);
    Subcommand(const Subcommand&) = delete;
    Subcommand& operator=(const Subcommand&) = delete;
    virtual ~Subcommand() = default;

    const CLI::App& options() const { return *m_options; }
    /// The form of the command line.
    const std::string& usage() const { return m_usage; }

    /// Does the work; `operands` are the words after "--", unchanged. Returns the exit status. Throws
    /// CLI::ValidationError with a text in the user's language if the command line is wrong, before anything
    /// has been started.
    virtual int run(const std::vector<std::string>& operands) = 0;

  protected:
    CLI::App* m_options;  ///< the application's

  private:
    std::string m_usage;
};

/// Help in the user's language, at most 80 columns wide.
class HelpFormatter : public CLI::Formatter {
  public:
    /// `usage` is the form of the command line.
    explicit HelpFormatter(std::string usage);

    std::string make_usage(const CLI::App* app, std::string name) const override;
    std::string make_description(const CLI::App* app) const override;
    std::string make_group(std::string group, bool isPositional,
                           std::vector<const CLI::Option*> options) const override;
    std::string make_option(const CLI::Option* option, bool isPositional) const override;
    std::string make_subcommand(const CLI::App* subcommand) const override;
    std::string make_footer(const CLI::App* app) const override;

  private:
    std::string m_usage;
};

/// Refuses what is not a whole number from `least` to `most`.
CLI::Validator numberFrom(long least, long most);
/// Refuses what is not one of `names`.
CLI::Validator oneOf(std::vector<std::string> names);

/// Throws CLI::ValidationError, saying that `words` are unexpected, unless there are none.
void refuseExtras(const std::vector<std::string>& words);

/// What is wrong with the command line of `application`, of which `options` were parsed, in the user's
/// language.
std::string reasonOf(const CLI::ParseError& error, const CLI::App& application, const CLI::App& options);

}  // namespace tool

#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

namespace tool {

/// One subcommand of the command `fiscora`. Its constructor adds it, with its options, to the application.
class Subcommand {
  public:
    Subcommand(CLI::App& application, const std::string& name, const std::string& description,
               const std::string& usage)
        : m_options(application.add_subcommand(name, description)), m_usage(usage) {
        m_options->formatter(std::make_shared<HelpFormatter>(usage));
    }
    Subcommand(const Subcommand&) = delete;
    Subcommand& operator=(const Subcommand&) = delete;
    virtual ~Subcommand() = default;

    const CLI::App& options() const { return *m_options; }
    /// The form of the command line.
    const std::string& usage() const { return m_usage; }

    /// Does the work; `operands` are the words behind "--", as they came. Returns the exit status. Throws
    /// CLI::ParseError where something is missing, before anything has been started.
    virtual int run(const std::vector<std::string>& operands) = 0;

  protected:
    CLI::App* m_options;  ///< the application's

  private:
    std::string m_usage;

    /// CLI11 knows nothing of the words behind "--".
    struct HelpFormatter : CLI::Formatter {
        explicit HelpFormatter(std::string usage) : m_usage(std::move(usage)) {}
        std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
            return "Usage: " + m_usage + "\n";
        }
        std::string m_usage;
    };
};

}  // namespace tool

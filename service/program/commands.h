#pragma once

#include <string>
#include <vector>

#include "Subcommand.h"
#include "journal/Journal.h"
#include "program/Settings.h"

/// What people do with the journal while the service runs, or instead of it.
namespace fiscorad {

/// A subcommand of `fiscorad`. `settings` outlives it.
class Command : public tool::Subcommand {
  public:
    Command(CLI::App& application, const Settings& settings, const std::string& name,
            const std::string& description, const std::string& usage);

  protected:
    /// The journal, which must exist: no command creates one.
    Journal openJournal() const;
    const Settings& settings() const { return m_settings; }

  private:
    const Settings& m_settings;
};

class CheckCommand : public Command {
  public:
    CheckCommand(CLI::App& application, const Settings& settings);
    int run(const std::vector<std::string>& operands) override;
};

class BackupCommand : public Command {
  public:
    BackupCommand(CLI::App& application, const Settings& settings);
    int run(const std::vector<std::string>& operands) override;

  private:
    std::string m_file;
};

class RestoreCommand : public Command {
  public:
    RestoreCommand(CLI::App& application, const Settings& settings);
    int run(const std::vector<std::string>& operands) override;

  private:
    std::string m_file;
};

class ExportCommand : public Command {
  public:
    ExportCommand(CLI::App& application, const Settings& settings);
    int run(const std::vector<std::string>& operands) override;

  private:
    std::string m_folder;
    std::string m_since;
};

class PruneCommand : public Command {
  public:
    PruneCommand(CLI::App& application, const Settings& settings);
    int run(const std::vector<std::string>& operands) override;

  private:
    std::string m_before;
    std::string m_folder;
    bool m_legalTimeOver = false;
    std::string m_reason;
};

class DecideCommand : public Command {
  public:
    DecideCommand(CLI::App& application, const Settings& settings);
    int run(const std::vector<std::string>& operands) override;

  private:
    std::string m_key;
    std::string m_accessKey;
    bool m_sendAgain = false;
    bool m_abandon = false;
    std::string m_reason;
};

class ConfirmCommand : public Command {
  public:
    ConfirmCommand(CLI::App& application, const Settings& settings);
    int run(const std::vector<std::string>& operands) override;

  private:
    std::string m_reason;
};

class TokenCommand : public Command {
  public:
    TokenCommand(CLI::App& application, const Settings& settings);
    int run(const std::vector<std::string>& operands) override;

  private:
    std::string m_action;
    std::string m_name;
    bool m_administrates = false;
};

/// Asks on a terminal whether to go on; elsewhere the command line is the answer.
bool goesOn(const std::string& question);
/// The login name of who runs this, also under sudo.
std::string person();

}  // namespace fiscorad

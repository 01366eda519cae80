#pragma once
// The item commands: ls, rm, mkdir, mv over the phone's storage, through the service's
// relay. Failures are told in words on standard error; with --json every command prints
// one document holding the relay "status" and the app's "detail" code (0 and 0 on success).

#include <CLI/CLI.hpp>
#include <string>

#include "ctl/commands.hpp"
#include "ctl/ctl_session.hpp"

namespace skiff::ctl {

// The four subcommands on skiffctl's command line, and the run of the one given.
class ItemCommands {
public:
    explicit ItemCommands(CLI::App& app);
    ItemCommands(const ItemCommands&) = delete;
    ItemCommands& operator=(const ItemCommands&) = delete;

    bool parsed() const;
    // Only when parsed().
    int run(CtlSession& session, const Output& out) const;

private:
    CLI::App* list_ = nullptr;
    CLI::App* remove_ = nullptr;
    CLI::App* makeDirectory_ = nullptr;
    CLI::App* rename_ = nullptr;
    std::string identifier_;
    std::string newIdentifier_;
    bool longFormat_ = false;
};

// Takes an item's path as people type it: "/notes.txt" and "Videos/" name "notes.txt" and
// "Videos", and "/" the top.
CLI::Validator identifierAsTyped();

// Every page of the directory; `longFormat` adds kind, size and modification time.
int runList(CtlSession& session, const Output& out, const std::string& identifier, bool longFormat);
int runRemove(CtlSession& session, const Output& out, const std::string& identifier);
int runMakeDirectory(CtlSession& session, const Output& out, const std::string& identifier);
int runRename(CtlSession& session, const Output& out, const std::string& from,
              const std::string& to);

}  // namespace skiff::ctl

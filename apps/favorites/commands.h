// The tool's commands: each registers a CLI11 subcommand and the action run
// when that subcommand was given. Actions print their result on standard
// output and report failures by throwing (see toolerrors.h).
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "session.h"

namespace kiv::tool {

class CommandSet {
public:
    void add(CLI::App* command, std::function<void()> action) { m_commands.emplace_back(command, std::move(action)); }
    // Runs the action of the subcommand that was parsed; false when none was.
    bool runParsed() const {
        for (const auto& [command, action] : m_commands) {
            if (command->parsed()) {
                action();
                return true;
            }
        }
        return false;
    }

private:
    std::vector<std::pair<CLI::App*, std::function<void()>>> m_commands;
};

// Writes text to standard output, control characters other than line feeds
// escaped (names and properties come from the catalog; see terminalText).
void print(const std::string& text);
// Writes bytes to standard output as they are: a stored body or document.
void printRaw(const std::string& bytes);

// Catalog time (microseconds since the epoch) as "YYYY-MM-DD HH:MM:SS" UTC.
std::string timeText(catalog::Time t);

// `catalog init|demo|mkdir|put|link|rm|grant|add-user|passwd|ls|info|cat|check|backup`
void addCatalogCommands(CLI::App& app, const GlobalOptions& options, CommandSet& commands);
// `tree`, `ls`, `is`, `add`, `mkcat`, `rm`, `rmcat`, `replace-json`, `replace-soap`, `export`,
// `history`, `restore`
void addFavoritesCommands(CLI::App& app, const GlobalOptions& options, CommandSet& commands);

}  // namespace kiv::tool

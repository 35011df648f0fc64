#include "usage_problem.h"

#include <fmt/format.h>

#include <algorithm>

#include "suggestion.h"

namespace scc::ctl {
namespace {

std::vector<std::string> option_names(const CLI::App& command, const CLI::App& root) {
    std::vector<std::string> names;
    for (const CLI::App* each : {&command, &root}) {
        for (const CLI::Option* option : each->get_options()) {
            for (const std::string& name : option->get_lnames()) {
                names.push_back("--" + name);
            }
        }
    }
    return names;
}

// What the first word that is unknown at its place probably means; empty if there is none, or no good guess.
std::string misspelt(const CLI::App& root, const std::vector<std::string>& words) {
    const CLI::App* at = &root;
    for (const std::string& word : words) {
        const auto children = at->get_subcommands([](const CLI::App*) { return true; });
        if (word.starts_with("--")) {
            const auto names = option_names(*at, root);
            const std::string name = word.substr(0, word.find('='));
            if (std::find(names.begin(), names.end(), name) == names.end()) {
                return did_you_mean(name, names);
            }
            continue;
        }
        const auto below = std::find_if(children.begin(), children.end(),
                                        [&](const CLI::App* each) { return each->get_name() == word; });
        if (below != children.end()) {
            at = *below;
            continue;
        }
        std::vector<std::string> names;
        for (const CLI::App* each : children) {
            names.push_back(each->get_name());
        }
        if (const std::string guess = did_you_mean(word, names); !guess.empty()) {
            return guess;
        }
    }
    return {};
}

// The commands that were found, from the first to the last.
std::vector<const CLI::App*> chosen(const CLI::App& root) {
    std::vector<const CLI::App*> path;
    for (const CLI::App* at = &root; !at->get_subcommands().empty(); path.push_back(at)) {
        at = at->get_subcommands().back();
    }
    return path;
}

bool is_group(const CLI::App& app) {
    return !app.get_subcommands([](const CLI::App*) { return true; }).empty();
}

// The parser tells surplus words in reverse, and nothing of a group's commands.
std::string reason(const CLI::ParseError& problem, const CLI::App& root) {
    if (const std::string unknown = unknown_command(root); !unknown.empty()) {
        return fmt::format("no command '{}'", unknown);
    }
    if (dynamic_cast<const CLI::ExtrasError*>(&problem) != nullptr) {
        return fmt::format("not expected: {}", fmt::join(root.remaining(true), " "));
    }
    const std::vector<const CLI::App*> path = chosen(root);
    if (!path.empty() && is_group(*path.back()) &&
        dynamic_cast<const CLI::RequiredError*>(&problem) != nullptr) {
        return fmt::format("{}: one of {} must follow", path.back()->get_name(),
                           path.back()->get_description());
    }
    return problem.what();
}

}  // namespace

std::string unknown_command(const CLI::App& root) {
    const std::vector<const CLI::App*> path = chosen(root);
    const auto surplus = root.remaining(true);
    if (!is_group(path.empty() ? root : *path.back()) || surplus.empty() || surplus[0].starts_with('-')) {
        return {};
    }
    std::string words;
    for (const CLI::App* command : path) {
        words += command->get_name() + " ";
    }
    return words + surplus[0];
}

std::string problem_text(const CLI::ParseError& problem, const CLI::App& root,
                         const std::vector<std::string>& words) {
    return reason(problem, root) + misspelt(root, words);
}

}  // namespace scc::ctl

#include "completion.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace scc::ctl {
namespace {

const CLI::App* child(const CLI::App& parent, const std::string& name) {
    const auto found = parent.get_subcommands([&](const CLI::App* each) { return each->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

bool takes_value(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

// What has been typed before the last word.
struct typed_line {
    const CLI::App* command = nullptr;
    const CLI::Option* awaited = nullptr;  // an option whose value is the last word
    std::size_t operands = 0;
};

typed_line follow(const CLI::App& root, const std::vector<std::string>& words) {
    typed_line line{&root, nullptr, 0};
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        if (line.awaited != nullptr) {
            line.awaited = nullptr;
            continue;
        }
        if (words[i].starts_with("-")) {
            const CLI::Option* option = line.command->get_option_no_throw(words[i]);
            option = option != nullptr ? option : root.get_option_no_throw(words[i]);
            line.awaited = option != nullptr && takes_value(*option) ? option : nullptr;
        } else if (const CLI::App* below = child(*line.command, words[i])) {
            line.command = below;
        } else if (!(words[i] == "help" && line.command == &root)) {
            ++line.operands;
        }
    }
    return line;
}

void add(completion& into, const std::string& typed, const std::string& word, const std::string& help) {
    if (word.starts_with(typed)) {
        into.candidates.push_back({word, help});
    }
}

void add_values(completion& into, const std::string& typed, const CLI::Option& option,
                const choice_map& choices) {
    into.files = option.get_type_name().find("FILE") != std::string::npos;
    const auto known = choices.find(&option);
    if (known == choices.end()) {
        return;
    }
    for (const std::string& each : known->second) {
        add(into, typed, each, "");
    }
}

void add_options(completion& into, const std::string& typed, const CLI::App& command) {
    for (const CLI::Option* each : command.get_options()) {
        if (each->nonpositional() && !each->get_lnames().empty()) {
            add(into, typed, "--" + each->get_lnames().front(), each->get_description());
        }
    }
}

void add_operand(completion& into, const std::string& typed, const typed_line& line,
                 const choice_map& choices) {
    std::vector<const CLI::Option*> operands;
    for (const CLI::Option* each : line.command->get_options()) {
        if (each->get_positional()) {
            operands.push_back(each);
        }
    }
    if (line.operands < operands.size()) {
        add_values(into, typed, *operands[line.operands], choices);
    }
}

}  // namespace

completion complete(const CLI::App& commands, const choice_map& choices,
                    const std::vector<std::string>& words) {
    completion found;
    const std::string typed = words.empty() ? "" : words.back();
    const typed_line line = follow(commands, words);
    if (line.awaited != nullptr) {
        add_values(found, typed, *line.awaited, choices);
    } else if (typed.starts_with("-")) {
        add_options(found, typed, *line.command);
        if (line.command != &commands) {
            add_options(found, typed, commands);
        }
    } else {
        for (const CLI::App* each : line.command->get_subcommands([](const CLI::App*) { return true; })) {
            add(found, typed, each->get_name(), each->get_description());
        }
        add_operand(found, typed, line, choices);
    }
    const auto by_word = [](const candidate& a, const candidate& b) { return a.word < b.word; };
    const auto same_word = [](const candidate& a, const candidate& b) { return a.word == b.word; };
    std::sort(found.candidates.begin(), found.candidates.end(), by_word);
    found.candidates.erase(std::unique(found.candidates.begin(), found.candidates.end(), same_word),
                           found.candidates.end());
    return found;
}

std::vector<std::string> files_beginning_with(const std::string& typed) {
    namespace fs = std::filesystem;
    const auto slash = typed.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : typed.substr(0, slash + 1);
    const std::string begun = typed.substr(folder.size());
    std::vector<std::string> names;
    std::error_code failed;
    fs::directory_iterator entry(folder.empty() ? "." : folder, failed);
    for (; !failed && entry != fs::directory_iterator(); entry.increment(failed)) {
        const std::string name = entry->path().filename();
        const bool hidden = name.starts_with(".") && !begun.starts_with(".");
        if (!name.starts_with(begun) || hidden) {
            continue;
        }
        std::error_code unknown;
        names.push_back(folder + name + (entry->is_directory(unknown) ? "/" : ""));
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace scc::ctl

#include "line_editor.h"

#include <histedit.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <utility>

#include "arguments.h"
#include "interrupt.h"
#include "program.h"

namespace scc::ctl {

namespace {

constexpr int history_lines_max = 1000;
// How often the wait for a key checks for an interrupt: the signal may arrive just before the wait begins.
constexpr int interrupt_interval_ms = 100;

// The words up to the cursor, the last of which is incomplete; none within a quote.
std::vector<std::string> words_before_cursor(std::string_view text) {
    try {
        auto words = shell_words(text);
        if (text.empty() || text.back() == ' ' || text.back() == '\t') {
            words.emplace_back();
        }
        return words;
    } catch (const usage_error&) {
        return {};
    }
}

std::string common_beginning(const std::vector<std::string>& words) {
    std::string beginning = words.front();
    for (const std::string& each : words) {
        const auto end = std::mismatch(beginning.begin(), beginning.end(), each.begin(), each.end()).first;
        beginning.erase(end, beginning.end());
    }
    return beginning;
}

bool wait_for_key() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    while (!interrupted()) {
        if (::poll(&input, 1, interrupt_interval_ms) > 0) {
            return true;
        }
    }
    errno = EINTR;
    return false;
}

// As the editor wants it: 1 with a character, 0 at the end of the input, -1 after an interrupt or an error.
int read_key(EditLine* /*editor*/, wchar_t* key) {
    constexpr auto incomplete = static_cast<std::size_t>(-2);
    constexpr auto invalid = static_cast<std::size_t>(-1);
    std::mbstate_t begun{};
    for (;;) {
        char byte = 0;
        if (!wait_for_key()) {
            return -1;
        }
        const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
        if (got <= 0) {
            return static_cast<int>(got);
        }
        const std::size_t used = std::mbrtowc(key, &byte, 1, &begun);
        if (used == invalid) {
            begun = {};
        } else if (used != incomplete) {
            return 1;
        }
    }
}

}  // namespace

struct line_editor::state {
    std::string prompt;
    std::string history_file;
    completer complete;
    EditLine* editor = nullptr;
    History* history = nullptr;

    static state& of(EditLine* editor) {
        void* data = nullptr;
        el_get(editor, EL_CLIENTDATA, &data);
        return *static_cast<state*>(data);
    }

    [[nodiscard]] std::vector<std::string> matches(const std::vector<std::string>& words) const {
        const completion found = complete(words);
        std::vector<std::string> all;
        for (const candidate& each : found.candidates) {
            all.push_back(each.word);
        }
        if (found.files) {
            const auto files = files_beginning_with(words.back());
            all.insert(all.end(), files.begin(), files.end());
        }
        return all;
    }

    const char* edited_line(int& count) {
        int edits = 0;  // ~/.editrc may switch editing off
        el_get(editor, EL_EDITMODE, &edits);
        // Before the prompt, and not with the first key: the terminal itself would take a Ctrl-D typed in
        // between.
        el_set(editor, EL_PREP_TERM, edits);
        const char* const text = el_gets(editor, &count);
        el_set(editor, EL_PREP_TERM, 0);
        return text;
    }

    unsigned char complete_line() {
        const LineInfo* const info = el_line(editor);
        const auto words =
            words_before_cursor({info->buffer, static_cast<std::size_t>(info->cursor - info->buffer)});
        const auto found = words.empty() ? std::vector<std::string>() : matches(words);
        if (found.empty()) {
            return CC_REFRESH_BEEP;
        }
        std::string rest = common_beginning(found).substr(words.back().size());
        if (found.size() == 1 && !found.front().ends_with('/')) {
            rest += ' ';
        }
        if (!rest.empty()) {
            return el_insertstr(editor, rest.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
        }
        std::fputc('\n', stderr);
        for (const std::string& each : found) {
            std::fprintf(stderr, "%s  ", each.c_str());
        }
        std::fputc('\n', stderr);
        return CC_REDISPLAY;
    }
};

line_editor::line_editor(std::string prompt, std::string history_file, completer complete)
    : state_(std::make_unique<state>()) {
    state_->prompt = std::move(prompt);
    state_->history_file = std::move(history_file);
    state_->complete = std::move(complete);
    state_->editor = el_init("sccctl", stdin, stderr, stderr);
    state_->history = history_init();
    EditLine* const editor = state_->editor;
    el_set(editor, EL_CLIENTDATA, state_.get());
    el_set(
        editor, EL_PROMPT,
        +[](EditLine* which) { return const_cast<char*>(state::of(which).prompt.c_str()); });
    el_set(editor, EL_GETCFN, &read_key);
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_HIST, ::history, state_->history);
    // Of a narrow name libedit would keep a copy that it never frees.
    el_wset(
        editor, EL_ADDFN, L"sccctl-complete", L"Complete the word before the cursor",
        +[](EditLine* which, int) { return state::of(which).complete_line(); });
    el_set(editor, EL_BIND, "^I", "sccctl-complete", nullptr);
    el_set(editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    el_source(editor, nullptr);  // the user's own bindings, in ~/.editrc
    HistEvent event{};
    ::history(state_->history, &event, H_SETSIZE, history_lines_max);
    ::history(state_->history, &event, H_SETUNIQUE, 1);
    if (!state_->history_file.empty()) {
        ::history(state_->history, &event, H_LOAD, state_->history_file.c_str());
    }
}

line_editor::~line_editor() {
    HistEvent event{};
    if (!state_->history_file.empty() &&
        ::history(state_->history, &event, H_SAVE, state_->history_file.c_str()) >= 0) {
        ::chmod(state_->history_file.c_str(), S_IRUSR | S_IWUSR);
    }
    history_end(state_->history);
    el_end(state_->editor);
}

line_state line_editor::read(std::string& line) {
    int count = 0;
    const char* const text = state_->edited_line(count);
    if (terminated()) {
        std::fputc('\n', stderr);
        return line_state::end;
    }
    if (interrupted()) {
        forget_interrupt();
        el_reset(state_->editor);
        std::fputc('\n', stderr);
        return line_state::interrupted;
    }
    if (text == nullptr || count <= 0) {
        std::fputc('\n', stderr);
        return line_state::end;
    }
    line.assign(text, static_cast<std::size_t>(count));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    if (line.find_first_not_of(" \t") != std::string::npos) {
        HistEvent event{};
        ::history(state_->history, &event, H_ENTER, line.c_str());
    }
    return line_state::line;
}

}  // namespace scc::ctl

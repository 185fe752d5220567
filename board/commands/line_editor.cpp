// SPDX-License-Identifier: Apache-2.0
#include "board/commands/line_editor.hpp"

#include "board/commands/commands.hpp"
#include "board/util/error.hpp"

#include <histedit.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <clocale>
#include <cstdio>
#include <string_view>

namespace board::commands
{
namespace
{

constexpr std::string_view promptText = "morrow> ";
constexpr int historyLength = 1000;

std::string listed(const std::vector<std::string>& candidates)
{
    std::string text;
    for (const auto& candidate : candidates)
    {
        text += (text.empty() ? "" : "  ") + candidate;
    }
    return text + '\n';
}

std::size_t columnsOfTerminal()
{
    constexpr std::size_t usual = 80;
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0
               ? size.ws_col
               : usual;
}

} // namespace

LineEditor::LineEditor(const Interruption& interruption) :
    interruption(interruption), typedLines(history_init(), history_end),
    editor(nullptr, el_end)
{
    // What is typed is in the user's own encoding.
    static_cast<void>(std::setlocale(LC_CTYPE, ""));
    editor.reset(el_init("morrow-board", stdin, stdout, stderr));
    if (!typedLines || !editor)
    {
        throw Error("cannot edit lines at this terminal; give the lines by a "
                    "pipe");
    }
    HistEvent event{};
    auto* const el = editor.get();
    // None of these can fail: all values are constant and right.
    ::history(typedLines.get(), &event, H_SETSIZE, historyLength);
    ::history(typedLines.get(), &event, H_SETUNIQUE, 1);
    el_set(el, EL_CLIENTDATA, this);
    el_set(el, EL_PROMPT, prompt);
    el_set(el, EL_EDITOR, "emacs");
    el_set(el, EL_HIST, ::history, typedLines.get());
    el_set(el, EL_GETCFN, onKey);
}

LineEditor& LineEditor::of(editline* editor)
{
    void* self = nullptr;
    el_get(editor, EL_CLIENTDATA, &self);
    return *static_cast<LineEditor*>(self);
}

const char* LineEditor::prompt(editline* /*editor*/)
{
    return promptText.data();
}

std::optional<std::string> LineEditor::next()
{
    const std::lock_guard lock(screen);
    interrupted = false;
    el_resize(editor.get());
    int length = 0;
    const auto* const text = el_gets(editor.get(), &length);
    if (interrupted)
    {
        static_cast<void>(std::fputs("^C\n", stdout));
        return "";
    }
    if (text == nullptr)
    {
        static_cast<void>(std::fputs("\n", stdout));
        return {};
    }
    std::string line(text, static_cast<std::size_t>(length));
    line.erase(line.find_last_not_of("\r\n") + 1);
    remember(line);
    return line;
}

void LineEditor::remember(const std::string& line)
{
    if (!wordsOf(line).empty())
    {
        HistEvent event{};
        // Without memory for it the history is shorter, no more.
        ::history(typedLines.get(), &event, H_ENTER, line.c_str());
    }
}

int LineEditor::onKey(editline* editor, wchar_t* key)
{
    return of(editor).readKey(*key);
}

/** Tab is served here: a function of the editor's own would cost memory that
 *  the editor never gives back.
 *  @return 1 with a key; 0 at the end of the input, or after Ctrl-C */
int LineEditor::readKey(wchar_t& key)
{
    constexpr auto incomplete = static_cast<std::size_t>(-2);
    constexpr auto invalid = static_cast<std::size_t>(-1);
    for (;;)
    {
        typing = true;
        screen.unlock();
        const auto pressed = interruption.awaitReadable(STDIN_FILENO);
        screen.lock();
        typing = false;
        if (!pressed)
        {
            interrupted = true;
            return 0;
        }
        char byte = 0;
        if (read(STDIN_FILENO, &byte, 1) != 1)
        {
            return 0;
        }
        const auto used = std::mbrtowc(&key, &byte, 1, &decoding);
        if (used == invalid)
        {
            decoding = {};
        }
        // A Ctrl-D from before the prompt had the terminal comes as a null,
        // which is nothing that anybody types.
        else if (used != incomplete && key != L'\0')
        {
            if (key != L'\t')
            {
                return 1;
            }
            complete();
        }
    }
}

void LineEditor::complete()
{
    const auto* const line = el_line(editor.get());
    const auto cursor = static_cast<std::size_t>(line->cursor - line->buffer);
    const std::string_view text(
        line->buffer, static_cast<std::size_t>(line->lastchar - line->buffer));
    const auto completion = allCommands().complete(text, cursor);
    if (completion.candidates.empty())
    {
        el_beep(editor.get());
        return;
    }
    const auto more = completion.extension(cursor);
    if (more.empty())
    {
        writeAbove(listed(completion.candidates));
        return;
    }
    // A line that is full stays as it is.
    static_cast<void>(el_insertstr(editor.get(), more.c_str()));
    el_set(editor.get(), EL_REFRESH);
}

void LineEditor::write(const std::string& text)
{
    const std::lock_guard lock(screen);
    if (typing)
    {
        writeAbove(text);
        return;
    }
    // A terminal that takes no more is no reason to stop the board.
    static_cast<void>(std::fputs(text.c_str(), stdout));
    static_cast<void>(std::fflush(stdout));
}

void LineEditor::writeAbove(const std::string& text)
{
    const auto row = rowOfCursor();
    const auto up = row == 0 ? "" : "\033[" + std::to_string(row) + "A";
    static_cast<void>(std::fputs((up + "\r\033[J" + text).c_str(), stdout));
    el_set(editor.get(), EL_REFRESH);
}

std::size_t LineEditor::rowOfCursor() const
{
    const auto* const line = el_line(editor.get());
    const auto before = static_cast<std::size_t>(line->cursor - line->buffer);
    return (promptText.size() + before) / columnsOfTerminal();
}

} // namespace board::commands

// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/lines.hpp"
#include "board/process/interruption.hpp"

#include <cwchar>
#include <memory>
#include <mutex>
#include <string>

struct editline;
struct history;

namespace board::commands
{

/** Lines typed at a terminal: a prompt with editing, history and completion
 *  (libedit, with its usual keys; Tab completes).
 *
 *  What is written while a line is being typed goes above it: the line is
 *  taken off the screen and put back below the text. One lock guards screen
 *  and editor; next() holds it but while it waits for a key.
 *
 *  A Ctrl-C at the prompt makes the line an empty one, Ctrl-D on an empty line
 *  is the end of the lines. The terminal is as it was whenever no line is
 *  being typed.
 */
class LineEditor : public Lines
{
  public:
    /** @param interruption reports Ctrl-C; outlives this */
    explicit LineEditor(const Interruption& interruption);

    std::optional<std::string> next() override;
    void write(const std::string& text) override;

  private:
    using OwnedEditor = std::unique_ptr<editline, void (*)(editline*)>;
    using OwnedHistory = std::unique_ptr<history, void (*)(history*)>;

    static LineEditor& of(editline* editor);
    static int onKey(editline* editor, wchar_t* key);
    static const char* prompt(editline* editor);

    int readKey(wchar_t& key);
    void complete();
    void writeAbove(const std::string& text);
    [[nodiscard]] std::size_t rowOfCursor() const;
    void remember(const std::string& line);

    const Interruption& interruption;
    std::mutex screen;
    bool typing = false; //!< a line is on the screen and the lock is free
    bool interrupted = false;
    std::mbstate_t decoding{};
    OwnedHistory typedLines;
    OwnedEditor editor;
};

} // namespace board::commands

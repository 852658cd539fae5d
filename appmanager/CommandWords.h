// The words of a command as a scoped value.

#ifndef OVARD_APPMANAGER_COMMAND_WORDS_H
#define OVARD_APPMANAGER_COMMAND_WORDS_H

#include "appmanager/AppManager.h"

/// What `AppManager::commandline_parser` makes of a text, released at the end of the scope.
class CommandWords {
public:
    /// `text` outlives the object.
    CommandWords(AppManager& manager, const char* text)
        : manager_(manager)
        , text_(text)
        , count_(manager.commandline_parser(text, words_)) {}
    ~CommandWords() { manager_.commandline_parser_cleanup(count_, words_); }
    CommandWords(const CommandWords&) = delete;
    CommandWords& operator=(const CommandWords&) = delete;

    int count() const { return count_; }

    /// The text has more words than a command may have; those beyond were left out.
    bool isCut() const;

    /// `count()` words and a null pointer; null when there was no memory.
    char** words() const { return words_; }

private:
    AppManager& manager_;
    const char* text_; ///< the caller's
    char** words_ = nullptr;
    int count_;
};

#endif // OVARD_APPMANAGER_COMMAND_WORDS_H

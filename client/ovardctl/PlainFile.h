// Plain files, read whole and replaced whole. What goes wrong is told as a text for the user that
// names the file, without a line feed; an empty text means that all went well.

#ifndef OVARD_CLIENT_OVARDCTL_PLAIN_FILE_H
#define OVARD_CLIENT_OVARDCTL_PLAIN_FILE_H

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/UniqueFd.h"

namespace ovardctl {

/// Reads the plain file `path` of at most `limit` bytes. Never blocks on what only looks like one,
/// and follows no link that another user may have planted on the way (platform::findNamedPlace).
std::string readPlainFile(const std::string& path, std::size_t limit, std::string& content);

/// Both paths lead to one file that exists, also through symbolic or hard links.
bool areSameFile(const std::string& left, const std::string& right);

/// Replaces a plain file by one of the same owner and permissions, or creates it with mode 0644.
/// Readers find the old content or the new one, also after the power failed. No link is followed
/// that another user may have planted on the way to it (platform::findNamedPlace).
///
/// The new content is prepared in a file beside it, PATH.new, which keeps a second replacement of
/// the same file away. It is removed with the object.
class FileReplacement {
public:
    explicit FileReplacement(std::string path);
    ~FileReplacement();
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;

    /// Creates the file beside it, and remembers what the file is by now. Refuses a symbolic link
    /// and whatever else is no plain file.
    std::string begin();

    /// There is a file to be replaced. Call after `begin`.
    bool hasOriginal() const { return hasOriginal_; }

    /// Reads the file that is replaced, as readPlainFile does. Call after `begin`.
    std::string readOriginal(std::size_t limit, std::string& content) const;

    /// Puts the content in the place of the file. Refuses when another program has changed the file
    /// since `begin`.
    std::string commit(std::string_view content);

private:
    std::string examine();
    std::string prepare(std::string_view content) const;
    bool keepOwner() const;
    bool isUnchanged() const;
    std::string syncDirectory() const;
    std::string failure(const std::string& attempt) const;

    int folder() const { return place_.folder.fd.get(); }

    const std::string path_;
    const std::string newPath_;
    platform::NamedPlace place_; ///< of the file; what is done there does not walk the path again
    std::string newName_;
    platform::UniqueFd newFile_; ///< open while there is a file beside it
    bool hasOriginal_ = false;
    struct stat original_ = {}; ///< meaningful where there is one
};

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_PLAIN_FILE_H

#include "client/ovardctl/PlainFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <system_error>
#include <utility>

namespace ovardctl {
namespace {

constexpr mode_t kModeOfNewFile = 0644;
constexpr mode_t kPermissions = 07777;

std::string failureOf(const std::string& path, const std::string& attempt, int error) {
    return "cannot " + attempt + " " + path + ": " + std::generic_category().message(error);
}

bool isSameMoment(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

/// Reads on until the end of the file; a file that grows meanwhile is read up to one byte more than
/// `limit`.
bool readAll(int fd, std::size_t size, std::size_t limit, std::string& content) {
    constexpr std::size_t kStep = 65536;
    content.clear();
    content.reserve(size);
    while (content.size() <= limit) {
        const std::size_t before = content.size();
        content.resize(before + kStep);
        const ssize_t count = platform::readFully(fd, content.data() + before, kStep);
        content.resize(before + (count > 0 ? static_cast<std::size_t>(count) : 0));
        if (count <= 0) {
            return count == 0;
        }
    }
    return true;
}

/// Reads the plain file `file`, which was opened as `path`; errno tells why there is none.
std::string readOpened(const platform::UniqueFd& file, const std::string& path, std::size_t limit,
                       std::string& content) {
    struct stat facts = {};
    if (!file.valid() || ::fstat(file.get(), &facts) != 0) {
        return failureOf(path, "open", errno);
    }
    if (!S_ISREG(facts.st_mode)) {
        return path + " is no plain file";
    }
    const auto size = static_cast<std::uintmax_t>(facts.st_size);
    if (size <= limit && !readAll(file.get(), static_cast<std::size_t>(size), limit, content)) {
        return failureOf(path, "read", errno);
    }
    if (size > limit || content.size() > limit) {
        return path + " has more than " + std::to_string(limit) + " bytes and is not read";
    }
    return {};
}

} // namespace

std::string readPlainFile(const std::string& path, std::size_t limit, std::string& content) {
    return readOpened(platform::openAt(platform::findNamedPlace(path.c_str()), O_RDONLY), path,
                      limit, content);
}

bool areSameFile(const std::string& left, const std::string& right) {
    struct stat first = {};
    struct stat second = {};
    return ::stat(left.c_str(), &first) == 0 && ::stat(right.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

FileReplacement::FileReplacement(std::string path)
    : path_(std::move(path))
    , newPath_(path_ + ".new") {}

FileReplacement::~FileReplacement() {
    if (newFile_.valid()) {
        // nothing more can be done about it
        (void)::unlinkat(folder(), newName_.c_str(), 0);
    }
}

std::string FileReplacement::begin() {
    place_ = platform::findNamedPlace(path_.c_str());
    if (!place_.folder.fd.valid()) {
        return failureOf(newPath_, "create", errno);
    }
    if (path_.empty() || path_.back() == '/') {
        return path_ + " is no plain file";
    }
    newName_ = std::string(place_.name) + ".new";
    // Given by hand: openAt opens what is there already.
    newFile_.reset(::openat(folder(), newName_.c_str(),
                            O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY,
                            S_IRUSR | S_IWUSR));
    if (!newFile_.valid() && errno == EEXIST) {
        return newPath_ + " exists: another program is changing " + path_ +
               " at this moment, or was interrupted; remove " + newPath_ + " in that case";
    }
    if (!newFile_.valid()) {
        return failureOf(newPath_, "create", errno);
    }
    return examine();
}

std::string FileReplacement::examine() {
    hasOriginal_ = ::fstatat(folder(), place_.name, &original_, AT_SYMLINK_NOFOLLOW) == 0;
    if (!hasOriginal_) {
        return errno == ENOENT ? std::string() : failure("examine");
    }
    if (S_ISLNK(original_.st_mode)) {
        return path_ + " is a symbolic link, which is not replaced; name the file itself";
    }
    return S_ISREG(original_.st_mode) ? std::string() : path_ + " is no plain file";
}

std::string FileReplacement::readOriginal(std::size_t limit, std::string& content) const {
    return readOpened(platform::openAt(place_, O_RDONLY | O_NOFOLLOW), path_, limit, content);
}

std::string FileReplacement::commit(std::string_view content) {
    std::string problem = prepare(content);
    if (!problem.empty()) {
        return problem;
    }
    if (!isUnchanged()) {
        return "another program has just changed " + path_ + "; nothing was changed, try again";
    }
    if (::renameat(folder(), newName_.c_str(), folder(), place_.name) != 0) {
        return failure("replace");
    }
    newFile_.reset();
    return syncDirectory();
}

/// Brings all of the new file onto the disk.
std::string FileReplacement::prepare(std::string_view content) const {
    errno = ENOSPC; // what a short write means
    const ssize_t written = platform::writeFully(newFile_.get(), content.data(), content.size());
    if (written != static_cast<ssize_t>(content.size())) {
        return failureOf(newPath_, "write", errno);
    }
    if (!keepOwner()) {
        return failure("keep the owner and the permissions of");
    }
    return ::fsync(newFile_.get()) == 0 ? std::string() : failureOf(newPath_, "write", errno);
}

bool FileReplacement::keepOwner() const {
    if (!hasOriginal_) {
        return ::fchmod(newFile_.get(), kModeOfNewFile) == 0;
    }
    // In this order: a change of the owner takes permissions away.
    return ::fchown(newFile_.get(), original_.st_uid, original_.st_gid) == 0 &&
           ::fchmod(newFile_.get(), original_.st_mode & kPermissions) == 0;
}

bool FileReplacement::isUnchanged() const {
    struct stat facts = {};
    if (::fstatat(folder(), place_.name, &facts, AT_SYMLINK_NOFOLLOW) != 0) {
        return !hasOriginal_ && errno == ENOENT;
    }
    return hasOriginal_ && facts.st_dev == original_.st_dev && facts.st_ino == original_.st_ino &&
           facts.st_size == original_.st_size && isSameMoment(facts.st_mtim, original_.st_mtim) &&
           isSameMoment(facts.st_ctim, original_.st_ctim);
}

/// Makes the new name last. Some file systems have nothing to do for that and say so.
std::string FileReplacement::syncDirectory() const {
    const platform::UniqueFd directory =
        platform::openFileAt(folder(), ".", O_RDONLY | O_DIRECTORY);
    if (directory.valid() && (::fsync(directory.get()) == 0 || errno == EINVAL)) {
        return {};
    }
    return path_ + " is written, but may be lost when the power fails: " +
           std::generic_category().message(errno);
}

std::string FileReplacement::failure(const std::string& attempt) const {
    return failureOf(path_, attempt, errno);
}

} // namespace ovardctl

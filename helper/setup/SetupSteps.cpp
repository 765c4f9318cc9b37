// SPDX-License-Identifier: GPL-3.0-or-later
#include "SetupSteps.h"

#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace bonkwell::setup {
namespace {

constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;

std::string errnoText(int code) {
    return std::strerror(code);
}

// Closes a descriptor when it goes out of scope unless released.
class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            if (fd_ >= 0) {
                ::close(fd_);
            }
            fd_ = other.release();
        }
        return *this;
    }
    int get() const { return fd_; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

  private:
    int fd_;
};

// Splits an absolute path into its components. Refuses relative paths, empty components
// (apart from one trailing slash), "." and "..".
bool splitAbsolute(const std::string& path, std::vector<std::string>* parts, std::string* why) {
    if (path.empty() || path[0] != '/') {
        *why = "is not an absolute path";
        return false;
    }
    if (path.size() >= PATH_MAX) {
        *why = "is too long";
        return false;
    }
    std::string trimmed = path;
    if (trimmed.size() > 1 && trimmed.back() == '/') {
        trimmed.pop_back();
    }
    std::size_t start = 1;
    while (start <= trimmed.size()) {
        const std::size_t slash = trimmed.find('/', start);
        const std::size_t end = slash == std::string::npos ? trimmed.size() : slash;
        std::string part = trimmed.substr(start, end - start);
        if (part.empty() || part == "." || part == "..") {
            *why = "is not a plain path (empty, \".\" or \"..\" component)";
            return false;
        }
        parts->push_back(std::move(part));
        start = end + 1;
    }
    return true;
}

// Opens `name` inside `parentFd` as a folder without following a symbolic link.
// `shownPath` is the path so far, for messages.
std::optional<int> openFolderNoFollow(int parentFd, const std::string& name,
                                      const std::string& shownPath, std::string* why) {
    const int fd =
        ::openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) {
        return fd;
    }
    const int openErrno = errno;
    struct stat st {};
    if (::fstatat(parentFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISLNK(st.st_mode)) {
            *why = shownPath + " is a symbolic link";
            return std::nullopt;
        }
        if (!S_ISDIR(st.st_mode)) {
            *why = shownPath + " is not a folder";
            return std::nullopt;
        }
    }
    *why = shownPath + ": " + errnoText(openErrno);
    return std::nullopt;
}

bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

std::string oneLine(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            c = '?';
        }
    }
    return out;
}

std::optional<uid_t> callerUid(std::string* error) {
    if (::getuid() != 0) {
        return ::getuid();
    }
    // Only pkexec, running us as root, sets this; nothing else from the environment is read.
    const char* fromPkexec = std::getenv("PKEXEC_UID");
    if (fromPkexec == nullptr) {
        return ::getuid();
    }
    const std::string text = fromPkexec;
    if (text.empty() || text.size() > 10 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        *error = "PKEXEC_UID is not a user id";
        return std::nullopt;
    }
    const unsigned long value = std::strtoul(text.c_str(), nullptr, 10);
    if (value >= static_cast<unsigned long>(static_cast<uid_t>(-1))) {
        *error = "PKEXEC_UID is not a user id";
        return std::nullopt;
    }
    return static_cast<uid_t>(value);
}

std::optional<int> openTrustedHelper(Failure* failure) {
    const std::string installHint = "; install the Bonkwell package to set up the detection engine";
    char exe[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) {
        *failure = {kUntrustedSource, "cannot tell where this program is installed" + installHint};
        return std::nullopt;
    }
    exe[n] = '\0';
    const std::string self(exe);
    const std::string folder = self.substr(0, self.rfind('/'));
    const std::string source = folder + "/" + kHelperName;

    std::vector<std::string> parts;
    std::string why;
    if (!splitAbsolute(folder.empty() ? "/" : folder, &parts, &why)) {
        *failure = {kUntrustedSource, "the helper folder " + folder + " " + why + installHint};
        return std::nullopt;
    }
    // Every folder from / down to ours must be root's, so that nobody else can swap the copy.
    Fd dir(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::string shown;
    for (std::size_t i = 0; i <= parts.size(); ++i) {
        if (i > 0) {
            shown += "/" + parts[i - 1];
            const std::optional<int> next =
                openFolderNoFollow(dir.get(), parts[i - 1], shown, &why);
            if (!next) {
                *failure = {kUntrustedSource,
                            "the helper copy " + source + " is not trusted: " + why + installHint};
                return std::nullopt;
            }
            dir = Fd(*next);
        }
        struct stat st {};
        if (::fstat(dir.get(), &st) != 0) {
            *failure = {kUntrustedSource, "cannot inspect " + (shown.empty() ? "/" : shown)};
            return std::nullopt;
        }
        const bool last = i == parts.size();
        const bool othersMayChange =
            (st.st_mode & kWritableByOthers) != 0 && (last || (st.st_mode & S_ISVTX) == 0);
        if (st.st_uid != 0 || othersMayChange) {
            *failure = {kUntrustedSource,
                        "the helper copy " + source + " is not trusted: the folder " +
                            (shown.empty() ? "/" : shown) + " is not root's alone" + installHint};
            return std::nullopt;
        }
    }
    const int fd = ::openat(dir.get(), kHelperName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        *failure = {kUntrustedSource,
                    "the helper copy " + source + ": " + errnoText(errno) + installHint};
        return std::nullopt;
    }
    Fd file(fd);
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != 0 ||
        (st.st_mode & kWritableByOthers) != 0) {
        *failure = {kUntrustedSource, "the helper copy " + source +
                                          " is not a root-owned file that only root can change" +
                                          installHint};
        return std::nullopt;
    }
    return file.release();
}

std::optional<std::string> homeOf(uid_t uid) {
    const passwd* entry = ::getpwuid(uid);
    if (entry == nullptr || entry->pw_dir == nullptr || entry->pw_dir[0] != '/') {
        return std::nullopt;
    }
    // The folder the app names is a real path, so the home folder is compared as one too.
    char real[PATH_MAX];
    if (::realpath(entry->pw_dir, real) == nullptr) {
        return std::nullopt;
    }
    return std::string(real);
}

std::optional<int> openInstallFolder(const std::string& path, uid_t caller, Failure* failure) {
    const std::string refusing = "refusing " + path + ": ";
    std::vector<std::string> parts;
    std::string why;
    if (!splitAbsolute(path, &parts, &why)) {
        *failure = {kRefusedFolder, refusing + "it " + why};
        return std::nullopt;
    }
    const std::size_t n = parts.size();
    if (n < 3 || parts[n - 2] != "Bonkwell" || parts[n - 1] != "Helpers") {
        *failure = {kRefusedFolder, refusing + "it is not a Bonkwell/Helpers folder"};
        return std::nullopt;
    }
    // Only inside the calling user's own home: nowhere shared such as /tmp.
    const std::optional<std::string> home = homeOf(caller);
    std::vector<std::string> homeParts;
    std::string homeWhy;
    if (!home || !splitAbsolute(*home, &homeParts, &homeWhy) || homeParts.size() + 2 > n ||
        !std::equal(homeParts.begin(), homeParts.end(), parts.begin())) {
        *failure = {kRefusedFolder, refusing + "it is not inside the calling user's home folder" +
                                        (home ? " " + *home : std::string())};
        return std::nullopt;
    }
    Fd dir(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::string shown;
    for (std::size_t i = 0; i <= n; ++i) {
        if (i > 0) {
            shown += "/" + parts[i - 1];
            const std::optional<int> next =
                openFolderNoFollow(dir.get(), parts[i - 1], shown, &why);
            if (!next) {
                *failure = {kRefusedFolder, refusing + why};
                return std::nullopt;
            }
            dir = Fd(*next);
        }
        const std::string here = shown.empty() ? "/" : shown;
        struct stat st {};
        if (::fstat(dir.get(), &st) != 0) {
            *failure = {kRefusedFolder, refusing + "cannot inspect " + here};
            return std::nullopt;
        }
        const bool own = i + 2 > n;  // "Bonkwell" and "Helpers" themselves
        if (own) {
            if (st.st_uid != caller) {
                *failure = {kRefusedFolder, refusing + here + " is not owned by the calling user"};
                return std::nullopt;
            }
            if ((st.st_mode & kWritableByOthers) != 0) {
                *failure = {kRefusedFolder, refusing + here + " is writable by other users"};
                return std::nullopt;
            }
        } else {
            if (st.st_uid != 0 && st.st_uid != caller) {
                *failure = {kRefusedFolder,
                            refusing + here + " belongs to neither root nor the calling user"};
                return std::nullopt;
            }
            const bool stickyRoot = st.st_uid == 0 && (st.st_mode & S_ISVTX) != 0;
            if ((st.st_mode & kWritableByOthers) != 0 && !stickyRoot) {
                *failure = {kRefusedFolder, refusing + here + " is writable by other users"};
                return std::nullopt;
            }
        }
    }
    struct statvfs vfs {};
    if (::fstatvfs(dir.get(), &vfs) != 0) {
        *failure = {kRefusedFolder, refusing + "cannot inspect its file system"};
        return std::nullopt;
    }
    if ((vfs.f_flag & ST_NOSUID) != 0) {
        *failure = {kNoSuidMount, refusing +
                                      "its file system is mounted nosuid, which ignores "
                                      "the set-user-ID bit the helper needs"};
        return std::nullopt;
    }
    return dir.release();
}

namespace {
constexpr const char* kAccessAcl = "system.posix_acl_access";
}  // namespace

std::optional<Failure> installInto(int folderFd, const std::string& folderPath, int sourceFd) {
    const std::string target = folderPath + "/" + kHelperName;
    struct stat existing {};
    if (::fstatat(folderFd, kHelperName, &existing, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISLNK(existing.st_mode)) {
            return Failure{kRefusedFolder, "refusing " + target + ": it is a symbolic link"};
        }
        if (!S_ISREG(existing.st_mode)) {
            return Failure{kRefusedFolder, "refusing " + target + ": it is not a regular file"};
        }
    } else if (errno != ENOENT) {
        return Failure{kFailed, target + ": " + errnoText(errno)};
    }

    const std::string temp = ".thuzz-detector.setup-" + std::to_string(::getpid());
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    int fd = ::openat(folderFd, temp.c_str(), flags, 0600);
    if (fd < 0 && errno == EEXIST) {
        // Left over from an interrupted run; the name is only ever ours.
        ::unlinkat(folderFd, temp.c_str(), 0);
        fd = ::openat(folderFd, temp.c_str(), flags, 0600);
    }
    if (fd < 0) {
        return Failure{kFailed, "cannot create a file in " + folderPath + ": " + errnoText(errno)};
    }
    Fd out(fd);
    auto fail = [&](const std::string& why) {
        ::unlinkat(folderFd, temp.c_str(), 0);
        return Failure{kFailed, why};
    };

    std::vector<char> chunk(64 * 1024);
    for (;;) {
        const ssize_t n = ::read(sourceFd, chunk.data(), chunk.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return fail("cannot read the helper copy: " + errnoText(errno));
        }
        if (n == 0) {
            break;
        }
        if (!writeAll(fd, chunk.data(), static_cast<std::size_t>(n))) {
            return fail("cannot write " + target + ": " + errnoText(errno));
        }
    }
    // A default ACL on the folder was inherited by the new file: it gets its plain mode alone.
    if (::fremovexattr(fd, kAccessAcl) != 0 && errno != ENODATA && errno != ENOTSUP) {
        return fail("cannot remove the access list of " + target + ": " + errnoText(errno));
    }
    // Owner first: changing the owner clears the set-user-ID bit.
    if (::fchown(fd, 0, 0) != 0) {
        return fail("cannot give " + target + " to root: " + errnoText(errno));
    }
    if (::fchmod(fd, 04755) != 0) {
        return fail("cannot set the mode of " + target + ": " + errnoText(errno));
    }
    if (::fsync(fd) != 0) {
        return fail("cannot write " + target + ": " + errnoText(errno));
    }
    struct stat made {};
    if (::fstat(fd, &made) != 0 || (made.st_mode & 07777) != 04755 || made.st_uid != 0) {
        return fail("the new " + target + " did not keep mode 4755 and owner root");
    }
    if (::fgetxattr(fd, kAccessAcl, nullptr, 0) >= 0) {
        return fail("the new " + target + " kept an access list");
    }
    if (::renameat(folderFd, temp.c_str(), folderFd, kHelperName) != 0) {
        return fail("cannot put " + target + " in place: " + errnoText(errno));
    }
    struct stat placed {};
    if (::fstatat(folderFd, kHelperName, &placed, AT_SYMLINK_NOFOLLOW) != 0 ||
        placed.st_ino != made.st_ino || placed.st_dev != made.st_dev) {
        return Failure{kFailed, "the folder " + folderPath + " changed during installation"};
    }
    ::fsync(folderFd);
    return std::nullopt;
}

std::optional<Failure> run(int argc, char** argv) {
    if (argc != 2) {
        return Failure{kUsage, "usage: bonkwell-helper-setup <folder>/Bonkwell/Helpers"};
    }
    if (::geteuid() != 0) {
        return Failure{kNotRoot, "bonkwell-helper-setup must run as root (through pkexec)"};
    }
    std::string error;
    const std::optional<uid_t> caller = callerUid(&error);
    if (!caller) {
        return Failure{kUsage, error};
    }
    Failure failure{kFailed, ""};
    const std::optional<int> source = openTrustedHelper(&failure);
    if (!source) {
        return failure;
    }
    Fd sourceFd(*source);
    const std::string folderPath = argv[1];
    const std::optional<int> folder = openInstallFolder(folderPath, *caller, &failure);
    if (!folder) {
        return failure;
    }
    Fd folderFd(*folder);
    std::string shownFolder = folderPath;
    if (shownFolder.size() > 1 && shownFolder.back() == '/') {
        shownFolder.pop_back();
    }
    return installInto(folderFd.get(), shownFolder, sourceFd.get());
}

}  // namespace bonkwell::setup

#include "KROResourceForkFinder.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "KROResourceForkParser.h"

namespace {

// Closes a descriptor when leaving scope.
class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    int get() const { return descriptor_; }

private:
    int descriptor_;
};

// Reads exactly size bytes from the start of the descriptor.
bool readWhole(int descriptor, KROData& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count =
            ::pread(descriptor, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace

std::vector<std::filesystem::path>
KROResourceForkFinder::sidecarPaths(const std::filesystem::path& url) {
    const std::filesystem::path parent = url.parent_path();
    const std::string name = url.filename().string();
    return {url / "..namedfork" / "rsrc", parent / ("._" + name), parent / ".AppleDouble" / name};
}

KROData KROResourceForkFinder::forkOfFile(const std::filesystem::path& url) {
    if (url.empty() || !url.has_filename()) {
        return {};
    }
    for (const auto& path : sidecarPaths(url)) {
        if (auto fork = forkInContainer(readContainerFile(path))) {
            return std::move(*fork);
        }
    }
    if (auto fork = forkInContainer(readContainerAttribute(url))) {
        return std::move(*fork);
    }
    return {};
}

std::optional<KROData> KROResourceForkFinder::readContainerFile(const std::filesystem::path& path) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<std::uint64_t>(status.st_size) > largestContainer) {
        return std::nullopt;
    }
    KROData bytes(static_cast<std::size_t>(status.st_size));
    if (!readWhole(file.get(), bytes)) {
        return std::nullopt;
    }
    return bytes;
}

std::optional<KROData>
KROResourceForkFinder::readContainerAttribute(const std::filesystem::path& url) {
    // The attribute may change between asking its size and reading it; one
    // retry covers a writer racing us, more would only hide a busy file.
    for (int attempt = 0; attempt < 2; ++attempt) {
        const ssize_t size = ::getxattr(url.c_str(), extendedAttributeName, nullptr, 0);
        if (size <= 0 || static_cast<std::uint64_t>(size) > largestContainer) {
            return std::nullopt;
        }
        KROData bytes(static_cast<std::size_t>(size));
        const ssize_t read =
            ::getxattr(url.c_str(), extendedAttributeName, bytes.data(), bytes.size());
        if (read >= 0) {
            bytes.resize(static_cast<std::size_t>(read));
            return bytes;
        }
        if (errno != ERANGE) {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

std::optional<KROData>
KROResourceForkFinder::forkInContainer(const std::optional<KROData>& container) {
    if (!container || container->empty()) {
        return std::nullopt;
    }
    const auto fork = KROResourceForkParser::forkFromContainer(*container);
    if (!fork || fork->empty()) {
        return std::nullopt;
    }
    return KROData(fork->begin(), fork->end());
}

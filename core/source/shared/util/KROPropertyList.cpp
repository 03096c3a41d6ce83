#include "KROPropertyList.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <limits>
#include <mutex>
#include <optional>
#include <plist/plist.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

#include "KROErrorFamilies.h"

namespace {

// The platform's code for a property list that cannot be read.
constexpr std::int64_t kPropertyListReadCorruptError = 3840;
constexpr const char* kReadActionKey = "KROPropertyList_action_read";
constexpr const char* kWriteActionKey = "KROPropertyList_action_write";

// Containers nested deeper than this are refused on read: libplist and the
// conversion below recurse once per level, and hostile input must not be
// able to exhaust the stack.
constexpr std::size_t kMaxNestingDepth = 512;

// libplist's binary reader builds a separate node for every reference, so a
// small file whose objects share children can expand without bound. The
// expansion, roughly in bytes of memory (a node weighs kNodeWeight, text and
// data their length), is capped at this or a multiple of the input size,
// whichever is larger.
constexpr std::uint64_t kNodeWeight = 64;
constexpr std::uint64_t kMinExpansionBudget = std::uint64_t{1} << 28;
constexpr std::uint64_t kExpansionPerInputByte = 64;

// Seconds from the Unix epoch to the platform's reference date, 2001-01-01.
constexpr std::int64_t kAppleEpochOffset = 978307200;

struct PlistDeleter {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPointer = std::unique_ptr<void, PlistDeleter>;

struct MallocDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
template <typename T> using MallocPointer = std::unique_ptr<T, MallocDeleter>;

// ---------------------------------------------------------------------------
// Binary input checks, done before libplist sees the bytes.

std::uint64_t readBigEndian(const std::uint8_t* bytes, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t index = 0; index < size; ++index) {
        value = (value << 8) | bytes[index];
    }
    return value;
}

// Walks the object graph of a binary property list without recursion and
// checks that libplist's recursive reader stays within kMaxNestingDepth and
// that the tree it builds stays within the expansion budget. It follows the
// layout libplist reads: a trailer, an offset table and objects whose
// containers refer to other objects by index.
class BinaryPlistShape {
public:
    BinaryPlistShape(const std::uint8_t* bytes, std::size_t length)
        : bytes_(bytes), length_(length) {}

    bool isAcceptable() { return readTrailer() && walkFrom(rootObject_); }

private:
    static constexpr std::size_t kHeaderSize = 8;
    static constexpr std::size_t kTrailerSize = 32;

    enum class State : std::uint8_t { Unvisited, InProgress, Done };

    struct ObjectShape {
        bool isContainer = false;
        std::size_t referencesStart = 0;
        std::uint64_t referenceCount = 0;
        std::uint64_t payloadSize = 0;
    };

    struct Frame {
        std::uint64_t object;
        ObjectShape shape;
        std::uint64_t nextReference = 0;
        std::size_t deepestChild = 0;
        std::uint64_t expansion = 0;
    };

    bool readTrailer() {
        if (length_ < kHeaderSize + kTrailerSize) {
            return false;
        }
        const std::uint8_t* trailer = bytes_ + length_ - kTrailerSize;
        offsetSize_ = trailer[6];
        referenceSize_ = trailer[7];
        objectCount_ = readBigEndian(trailer + 8, 8);
        rootObject_ = readBigEndian(trailer + 16, 8);
        offsetTable_ = readBigEndian(trailer + 24, 8);
        const std::uint64_t objectsEnd = length_ - kTrailerSize;
        if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) {
            return false;
        }
        if (objectCount_ == 0 || rootObject_ >= objectCount_ || offsetTable_ < kHeaderSize ||
            offsetTable_ >= objectsEnd) {
            return false;
        }
        if (objectCount_ > (objectsEnd - offsetTable_) / offsetSize_) {
            return false;
        }
        budget_ = std::max(kMinExpansionBudget, kExpansionPerInputByte * length_);
        states_.assign(objectCount_, State::Unvisited);
        depths_.assign(objectCount_, 0);
        expansions_.assign(objectCount_, 0);
        return true;
    }

    std::optional<std::size_t> objectOffset(std::uint64_t object) const {
        const std::uint64_t offset =
            readBigEndian(bytes_ + offsetTable_ + object * offsetSize_, offsetSize_);
        if (offset < kHeaderSize || offset >= offsetTable_) {
            return std::nullopt;
        }
        return static_cast<std::size_t>(offset);
    }

    // The count of an object: the low nibble of its marker, or an integer
    // object that follows when the nibble is 0xF.
    bool readCount(std::size_t& position, std::uint64_t& count) const {
        const std::uint8_t marker = bytes_[position++];
        count = marker & 0x0F;
        if (count != 0x0F) {
            return true;
        }
        if (position >= offsetTable_ || (bytes_[position] & 0xF0) != 0x10) {
            return false;
        }
        const std::size_t size = std::size_t{1} << (bytes_[position] & 0x0F);
        ++position;
        if (size > 8 || size > offsetTable_ - position) {
            return false;
        }
        count = readBigEndian(bytes_ + position, size);
        position += size;
        return true;
    }

    std::optional<ObjectShape> readShape(std::uint64_t object) const {
        const std::optional<std::size_t> offset = objectOffset(object);
        if (!offset) {
            return std::nullopt;
        }
        ObjectShape shape;
        const std::uint8_t type = bytes_[*offset] >> 4;
        const bool isContainer = type == 0xA || type == 0xC || type == 0xD;
        const bool hasPayload = type == 0x4 || type == 0x5 || type == 0x6;
        if (!isContainer && !hasPayload) {
            return shape;
        }
        std::size_t position = *offset;
        std::uint64_t count = 0;
        if (!readCount(position, count)) {
            return std::nullopt;
        }
        if (hasPayload) {
            shape.payloadSize = count > budget_ ? budget_ + 1 : count * (type == 0x6 ? 2 : 1);
            if (type == 0x6 && !isTextWithoutNUL(position, shape.payloadSize)) {
                return std::nullopt;
            }
            return shape;
        }
        const std::uint64_t references = type == 0xD ? count * 2 : count;
        if (count > std::numeric_limits<std::uint64_t>::max() / 2 ||
            references > (offsetTable_ - position) / referenceSize_) {
            return std::nullopt;
        }
        shape.isContainer = true;
        shape.referencesStart = position;
        shape.referenceCount = references;
        return shape;
    }

    // libplist 2.2 stops with an assertion on UTF-16 text that holds U+0000,
    // as soon as anyone reads it.
    bool isTextWithoutNUL(std::size_t position, std::uint64_t size) const {
        if (size > offsetTable_ - position) {
            return false;
        }
        for (std::size_t index = position; index + 1 < position + size; index += 2) {
            if (bytes_[index] == 0 && bytes_[index + 1] == 0) {
                return false;
            }
        }
        return true;
    }

    std::uint64_t reference(const Frame& frame) const {
        return readBigEndian(bytes_ + frame.shape.referencesStart +
                                 frame.nextReference * referenceSize_,
                             referenceSize_);
    }

    std::uint64_t addExpansion(std::uint64_t total, std::uint64_t more) const {
        return std::min(total + std::min(more, budget_ + 1), budget_ + 1);
    }

    // Folds a finished child into the frame on top of the stack. A child met
    // before, through another path, may sit deeper on this one: the nesting
    // counts the containers on the stack and the child's own depth.
    bool addChild(std::vector<Frame>& stack, std::uint64_t child) {
        if (stack.size() + depths_[child] > kMaxNestingDepth) {
            return false;
        }
        Frame& parent = stack.back();
        parent.deepestChild = std::max(parent.deepestChild, depths_[child]);
        parent.expansion = addExpansion(parent.expansion, expansions_[child]);
        return parent.expansion <= budget_;
    }

    // Marks a scalar as done; false when it cannot be read.
    bool finishScalar(std::uint64_t object, const ObjectShape& shape) {
        states_[object] = State::Done;
        depths_[object] = 0;
        expansions_[object] = addExpansion(kNodeWeight, shape.payloadSize);
        return expansions_[object] <= budget_;
    }

    bool walkFrom(std::uint64_t root) {
        std::optional<ObjectShape> rootShape = readShape(root);
        if (!rootShape) {
            return false;
        }
        if (!rootShape->isContainer) {
            return finishScalar(root, *rootShape);
        }
        std::vector<Frame> stack;
        stack.push_back(Frame{root, *rootShape});
        states_[root] = State::InProgress;
        while (!stack.empty()) {
            Frame& frame = stack.back();
            if (frame.nextReference == frame.shape.referenceCount) {
                const std::uint64_t finished = frame.object;
                states_[finished] = State::Done;
                depths_[finished] = frame.deepestChild + 1;
                expansions_[finished] = addExpansion(frame.expansion, kNodeWeight);
                stack.pop_back();
                if (!stack.empty() && !addChild(stack, finished)) {
                    return false;
                }
                continue;
            }
            const std::uint64_t child = reference(frame);
            ++frame.nextReference;
            if (child >= objectCount_ || states_[child] == State::InProgress) {
                return false;
            }
            if (states_[child] == State::Done) {
                if (!addChild(stack, child)) {
                    return false;
                }
                continue;
            }
            std::optional<ObjectShape> shape = readShape(child);
            if (!shape) {
                return false;
            }
            if (!shape->isContainer) {
                if (!finishScalar(child, *shape) || !addChild(stack, child)) {
                    return false;
                }
                continue;
            }
            if (stack.size() >= kMaxNestingDepth) {
                return false;
            }
            states_[child] = State::InProgress;
            stack.push_back(Frame{child, *shape});
        }
        return expansions_[root] <= budget_;
    }

    const std::uint8_t* bytes_;
    std::size_t length_;
    std::size_t offsetSize_ = 0;
    std::size_t referenceSize_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t rootObject_ = 0;
    std::uint64_t offsetTable_ = 0;
    std::uint64_t budget_ = 0;
    std::vector<State> states_;
    std::vector<std::size_t> depths_;
    std::vector<std::uint64_t> expansions_;
};

// ---------------------------------------------------------------------------
// XML input checks, done before libplist sees the text.

// Scans XML the way libplist's reader tokenizes it and checks that its
// element nesting stays within kMaxNestingDepth: libplist frees what it
// built recursively, also when it fails half way. Where libplist's reading
// could differ from this scan (double quotes that leave the end of a tag,
// processing instruction or DOCTYPE in doubt, internal DTD subsets), the
// input is refused rather than guessed at.
class XMLPlistShape {
public:
    explicit XMLPlistShape(std::string_view text) : text_(text) {}

    bool isAcceptable() {
        // XML has no NUL character, and libplist 2.2 stops with an assertion
        // on text that holds one.
        if (text_.find('\0') != std::string_view::npos) {
            return false;
        }
        while (position_ < text_.size()) {
            const std::size_t open = text_.find('<', position_);
            if (open == std::string_view::npos) {
                return true;
            }
            position_ = open;
            if (!scanMarkup()) {
                return false;
            }
        }
        return true;
    }

private:
    bool startsWith(std::string_view prefix) const {
        return text_.substr(position_).starts_with(prefix);
    }

    // Moves past the first terminator; false when there is none.
    bool skipPast(std::string_view terminator) {
        const std::size_t end = text_.find(terminator, position_);
        if (end == std::string_view::npos) {
            return false;
        }
        position_ = end + terminator.size();
        return true;
    }

    // Moves past the first terminator when the text before it has balanced
    // double quotes, so that a reader which skips quoted text and one which
    // does not both end at the same place.
    bool skipPastWithBalancedQuotes(std::string_view terminator) {
        const std::size_t end = text_.find(terminator, position_);
        if (end == std::string_view::npos) {
            return false;
        }
        const std::string_view body = text_.substr(position_, end - position_);
        if (std::count(body.begin(), body.end(), '"') % 2 != 0) {
            return false;
        }
        position_ = end + terminator.size();
        return true;
    }

    bool scanMarkup() {
        if (startsWith("<!--")) {
            return skipPast("-->");
        }
        if (startsWith("<![CDATA[")) {
            return skipPast("]]>");
        }
        if (startsWith("<?")) {
            return skipPastWithBalancedQuotes("?>");
        }
        if (startsWith("<!")) {
            return scanDeclaration();
        }
        return scanTag();
    }

    bool scanDeclaration() {
        const std::size_t start = position_;
        if (!skipPastWithBalancedQuotes(">")) {
            return false;
        }
        const std::string_view declaration = text_.substr(start, position_ - start);
        return declaration.find('[') == std::string_view::npos;
    }

    bool scanTag() {
        const std::size_t start = position_;
        if (!skipPastWithBalancedQuotes(">")) {
            return false;
        }
        const std::string_view tag = text_.substr(start + 1, position_ - start - 2);
        if (tag.find('<') != std::string_view::npos) {
            return false;
        }
        const bool closing = tag.starts_with('/');
        const bool empty = tag.ends_with('/');
        const std::string_view name = tagName(closing ? tag.substr(1) : tag);
        if (!isContainer(name)) {
            return true;
        }
        if (closing) {
            depth_ = depth_ > 0 ? depth_ - 1 : 0;
            return true;
        }
        if (!empty) {
            ++depth_;
        }
        // The <plist> element is one level above the outermost container.
        return depth_ <= kMaxNestingDepth + 1;
    }

    static std::string_view tagName(std::string_view tag) {
        const std::size_t end = tag.find_first_of(" \t\r\n/");
        return tag.substr(0, end);
    }

    static bool isContainer(std::string_view name) {
        return name == "plist" || name == "array" || name == "dict";
    }

    std::string_view text_;
    std::size_t position_ = 0;
    std::size_t depth_ = 0;
};

// ---------------------------------------------------------------------------
// From libplist nodes to values.

KRODate dateFromApple(std::int32_t seconds, std::int32_t microseconds) {
    // libplist 2.2 hands back the sub-second part without its sign; before
    // the reference date a whole second below zero means it was negative.
    std::int64_t micros = microseconds;
    if (seconds < 0 && micros > 0) {
        micros = -micros;
    }
    const auto sinceUnixEpoch =
        std::chrono::seconds(kAppleEpochOffset + seconds) + std::chrono::microseconds(micros);
    return KRODate(std::chrono::duration_cast<KRODate::duration>(sinceUnixEpoch));
}

// The seconds and microseconds of libplist's date, both truncated towards the
// reference date; seconds outside 32 bits are clamped.
std::pair<std::int32_t, std::int32_t> dateToApple(KRODate date) {
    const auto sinceUnixEpoch =
        std::chrono::duration_cast<std::chrono::microseconds>(date.time_since_epoch());
    const std::int64_t micros = sinceUnixEpoch.count() - kAppleEpochOffset * 1'000'000;
    std::int64_t seconds = micros / 1'000'000;
    std::int64_t fraction = micros % 1'000'000;
    if (seconds > std::numeric_limits<std::int32_t>::max() ||
        seconds < std::numeric_limits<std::int32_t>::min()) {
        seconds = std::clamp<std::int64_t>(seconds, std::numeric_limits<std::int32_t>::min(),
                                           std::numeric_limits<std::int32_t>::max());
        fraction = 0;
    }
    return {static_cast<std::int32_t>(seconds), static_cast<std::int32_t>(fraction)};
}

std::optional<KROPropertyList> valueFromNode(plist_t node, std::size_t depth);

// Strings are read by pointer and length: plist_get_string_val asserts on
// text that holds a NUL.
std::string stringFromNode(plist_t node, plist_type type) {
    if (type == PLIST_STRING) {
        std::uint64_t length = 0;
        const char* text = plist_get_string_ptr(node, &length);
        return text ? std::string(text, length) : std::string();
    }
    char* raw = nullptr;
    plist_get_key_val(node, &raw);
    MallocPointer<char> text(raw);
    return text ? std::string(text.get()) : std::string();
}

KROData dataFromNode(plist_t node) {
    char* raw = nullptr;
    std::uint64_t length = 0;
    plist_get_data_val(node, &raw, &length);
    MallocPointer<char> bytes(raw);
    if (!bytes || length == 0) {
        return {};
    }
    const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes.get());
    return KROData(begin, begin + length);
}

std::optional<KROPropertyList> arrayFromNode(plist_t node, std::size_t depth) {
    KROPropertyList::Array array;
    array.reserve(plist_array_get_size(node));
    plist_array_iter iterator = nullptr;
    plist_array_new_iter(node, &iterator);
    MallocPointer<void> iteratorMemory(iterator);
    while (true) {
        plist_t item = nullptr;
        plist_array_next_item(node, iterator, &item);
        if (!item) {
            break;
        }
        std::optional<KROPropertyList> value = valueFromNode(item, depth + 1);
        if (!value) {
            return std::nullopt;
        }
        array.push_back(std::move(*value));
    }
    return KROPropertyList(std::move(array));
}

// A key met twice keeps its first place and its last value.
std::optional<KROPropertyList> dictionaryFromNode(plist_t node, std::size_t depth) {
    KROPropertyList::Dictionary dictionary;
    std::unordered_map<std::string, std::size_t> indexOfKey;
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(node, &iterator);
    MallocPointer<void> iteratorMemory(iterator);
    while (true) {
        char* rawKey = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iterator, &rawKey, &item);
        MallocPointer<char> key(rawKey);
        if (!item) {
            break;
        }
        std::optional<KROPropertyList> value = valueFromNode(item, depth + 1);
        if (!value) {
            return std::nullopt;
        }
        std::string keyText = key ? std::string(key.get()) : std::string();
        const auto [found, inserted] = indexOfKey.try_emplace(keyText, dictionary.size());
        if (inserted) {
            dictionary.emplace_back(std::move(keyText), std::move(*value));
        } else {
            dictionary[found->second].second = std::move(*value);
        }
    }
    return KROPropertyList(std::move(dictionary));
}

std::optional<KROPropertyList> valueFromNode(plist_t node, std::size_t depth) {
    const plist_type type = plist_get_node_type(node);
    switch (type) {
    case PLIST_BOOLEAN: {
        std::uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return KROPropertyList(value != 0);
    }
    case PLIST_UINT: {
        // libplist keeps every integer as 64 unsigned bits; negative values
        // come back through the cast.
        std::uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return KROPropertyList(static_cast<std::int64_t>(value));
    }
    case PLIST_UID: {
        std::uint64_t value = 0;
        plist_get_uid_val(node, &value);
        return KROPropertyList(static_cast<std::int64_t>(value));
    }
    case PLIST_REAL: {
        double value = 0.0;
        plist_get_real_val(node, &value);
        return KROPropertyList(value);
    }
    case PLIST_STRING:
    case PLIST_KEY:
        return KROPropertyList(stringFromNode(node, type));
    case PLIST_DATE: {
        std::int32_t seconds = 0;
        std::int32_t microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        return KROPropertyList(dateFromApple(seconds, microseconds));
    }
    case PLIST_DATA:
        return KROPropertyList(dataFromNode(node));
    case PLIST_ARRAY:
        if (depth >= kMaxNestingDepth) {
            return std::nullopt;
        }
        return arrayFromNode(node, depth);
    case PLIST_DICT:
        if (depth >= kMaxNestingDepth) {
            return std::nullopt;
        }
        return dictionaryFromNode(node, depth);
    default:
        return std::nullopt;
    }
}

// ---------------------------------------------------------------------------
// From values to libplist nodes.

// Strings go to libplist as C strings: text after a NUL byte is not kept.
plist_t nodeFromValue(const KROPropertyList& value) {
    switch (value.type()) {
    case KROPropertyList::Type::String:
        return plist_new_string(value.stringValue()->c_str());
    case KROPropertyList::Type::Integer:
        return plist_new_uint(static_cast<std::uint64_t>(*value.integerValue()));
    case KROPropertyList::Type::Real:
        return plist_new_real(*value.realValue());
    case KROPropertyList::Type::Boolean:
        return plist_new_bool(*value.booleanValue() ? 1 : 0);
    case KROPropertyList::Type::Date: {
        const auto [seconds, microseconds] = dateToApple(*value.dateValue());
        return plist_new_date(seconds, microseconds);
    }
    case KROPropertyList::Type::Data: {
        const KROData& data = *value.dataValue();
        const char* bytes = data.empty() ? "" : reinterpret_cast<const char*>(data.data());
        return plist_new_data(bytes, data.size());
    }
    case KROPropertyList::Type::Array: {
        plist_t array = plist_new_array();
        for (const KROPropertyList& item : *value.arrayValue()) {
            plist_array_append_item(array, nodeFromValue(item));
        }
        return array;
    }
    case KROPropertyList::Type::Dictionary: {
        plist_t dictionary = plist_new_dict();
        for (const auto& [key, item] : *value.dictionaryValue()) {
            plist_dict_set_item(dictionary, key.c_str(), nodeFromValue(item));
        }
        return dictionary;
    }
    }
    return plist_new_dict();
}

// ---------------------------------------------------------------------------
// Files.

// Reads a whole file; returns 0 or the errno of the failure.
int readFileBytes(const std::filesystem::path& path, std::string& bytes) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return errno;
    }
    int failure = 0;
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) {
        failure = errno;
    } else if (S_ISDIR(status.st_mode)) {
        failure = EISDIR;
    } else if (static_cast<std::uint64_t>(status.st_size) >
               std::numeric_limits<std::uint32_t>::max()) {
        failure = EFBIG;
    }
    char buffer[65536];
    while (failure == 0) {
        const ssize_t count = ::read(descriptor, buffer, sizeof buffer);
        if (count < 0) {
            if (errno != EINTR) {
                failure = errno;
            }
            continue;
        }
        if (count == 0) {
            break;
        }
        bytes.append(buffer, static_cast<std::size_t>(count));
        if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
            failure = EFBIG;
        }
    }
    ::close(descriptor);
    return failure;
}

int writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(descriptor, text.data(), text.size());
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

// Creates a new file beside the target, with a name nobody else uses.
int createTemporaryFile(const std::filesystem::path& target, std::filesystem::path& temporary) {
    static std::mt19937_64 generator{std::random_device{}()};
    static std::mutex generatorLock;
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::uint64_t suffix = 0;
        {
            std::lock_guard guard(generatorLock);
            suffix = generator();
        }
        temporary = target;
        temporary.replace_filename("." + target.filename().string() + "." +
                                   std::to_string(::getpid()) + "." + std::to_string(suffix) +
                                   ".tmp");
        const int descriptor =
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (descriptor >= 0 || errno != EEXIST) {
            return descriptor;
        }
    }
    errno = EEXIST;
    return -1;
}

// Writes the text to a new file and renames it over the target, so that the
// target is either the old file or the whole new one. Returns 0 or an errno.
int replaceFileAtomically(const std::filesystem::path& target, std::string_view text) {
    std::filesystem::path temporary;
    const int descriptor = createTemporaryFile(target, temporary);
    if (descriptor < 0) {
        return errno;
    }
    // An existing file keeps its permissions.
    struct stat existing {};
    if (::stat(target.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) {
        ::fchmod(descriptor, existing.st_mode & 07777);
    }
    int failure = writeAll(descriptor, text);
    if (failure == 0 && ::fsync(descriptor) != 0) {
        failure = errno;
    }
    if (::close(descriptor) != 0 && failure == 0) {
        failure = errno;
    }
    if (failure == 0 && ::rename(temporary.c_str(), target.c_str()) != 0) {
        failure = errno;
    }
    if (failure != 0) {
        ::unlink(temporary.c_str());
    }
    return failure;
}

// Checks the bytes and hands them to libplist; null when refused or malformed.
PlistPointer parseBytes(const char* bytes, std::size_t length) {
    if (length == 0 || length > std::numeric_limits<std::uint32_t>::max()) {
        return nullptr;
    }
    const auto length32 = static_cast<std::uint32_t>(length);
    plist_t root = nullptr;
    if (plist_is_binary(bytes, length32)) {
        BinaryPlistShape shape(reinterpret_cast<const std::uint8_t*>(bytes), length);
        if (!shape.isAcceptable()) {
            return nullptr;
        }
        plist_from_bin(bytes, length32, &root);
        return PlistPointer(root);
    }
    // libplist reads some values with C string functions: a terminated copy
    // keeps them inside the buffer.
    const std::string text(bytes, length);
    XMLPlistShape shape(text);
    if (!shape.isAcceptable()) {
        return nullptr;
    }
    plist_from_xml(text.c_str(), length32, &root);
    return PlistPointer(root);
}

} // namespace

// ---------------------------------------------------------------------------
// Values.

KROPropertyList::KROPropertyList() : value_(Dictionary{}) {}
KROPropertyList::KROPropertyList(std::string value) : value_(std::move(value)) {}
KROPropertyList::KROPropertyList(const char* value) : value_(std::string(value ? value : "")) {}
KROPropertyList::KROPropertyList(std::int64_t value) : value_(value) {}
KROPropertyList::KROPropertyList(double value) : value_(value) {}
KROPropertyList::KROPropertyList(bool value) : value_(value) {}
KROPropertyList::KROPropertyList(KRODate value) : value_(value) {}
KROPropertyList::KROPropertyList(KROData value) : value_(std::move(value)) {}
KROPropertyList::KROPropertyList(Array value) : value_(std::move(value)) {}
KROPropertyList::KROPropertyList(Dictionary value) : value_(std::move(value)) {}

// The alternatives of value_ are in the order of Type.
KROPropertyList::Type KROPropertyList::type() const {
    return static_cast<Type>(value_.index());
}

const std::string* KROPropertyList::stringValue() const {
    return std::get_if<std::string>(&value_);
}
const std::int64_t* KROPropertyList::integerValue() const {
    return std::get_if<std::int64_t>(&value_);
}
const double* KROPropertyList::realValue() const {
    return std::get_if<double>(&value_);
}
const bool* KROPropertyList::booleanValue() const {
    return std::get_if<bool>(&value_);
}
const KRODate* KROPropertyList::dateValue() const {
    return std::get_if<KRODate>(&value_);
}
const KROData* KROPropertyList::dataValue() const {
    return std::get_if<KROData>(&value_);
}
const KROPropertyList::Array* KROPropertyList::arrayValue() const {
    return std::get_if<Array>(&value_);
}
KROPropertyList::Array* KROPropertyList::arrayValue() {
    return std::get_if<Array>(&value_);
}
const KROPropertyList::Dictionary* KROPropertyList::dictionaryValue() const {
    return std::get_if<Dictionary>(&value_);
}
KROPropertyList::Dictionary* KROPropertyList::dictionaryValue() {
    return std::get_if<Dictionary>(&value_);
}

double KROPropertyList::doubleValue(double fallback) const {
    if (const std::int64_t* integer = integerValue()) {
        return static_cast<double>(*integer);
    }
    if (const double* real = realValue()) {
        return *real;
    }
    if (const bool* boolean = booleanValue()) {
        return *boolean ? 1.0 : 0.0;
    }
    return fallback;
}

// Reals are truncated and saturated; NaN reads as 0.
std::int64_t KROPropertyList::longValue(std::int64_t fallback) const {
    if (const std::int64_t* integer = integerValue()) {
        return *integer;
    }
    if (const double* real = realValue()) {
        if (std::isnan(*real)) {
            return 0;
        }
        if (*real >= 9223372036854775808.0) {
            return std::numeric_limits<std::int64_t>::max();
        }
        if (*real <= -9223372036854775808.0) {
            return std::numeric_limits<std::int64_t>::min();
        }
        return static_cast<std::int64_t>(*real);
    }
    if (const bool* boolean = booleanValue()) {
        return *boolean ? 1 : 0;
    }
    return fallback;
}

bool KROPropertyList::boolValue(bool fallback) const {
    if (const std::int64_t* integer = integerValue()) {
        return *integer != 0;
    }
    if (const double* real = realValue()) {
        return *real != 0.0;
    }
    if (const bool* boolean = booleanValue()) {
        return *boolean;
    }
    return fallback;
}

const KROPropertyList* KROPropertyList::objectForKey(std::string_view key) const {
    const Dictionary* dictionary = dictionaryValue();
    if (!dictionary) {
        return nullptr;
    }
    for (const auto& [entryKey, value] : *dictionary) {
        if (entryKey == key) {
            return &value;
        }
    }
    return nullptr;
}

KROPropertyList* KROPropertyList::objectForKey(std::string_view key) {
    return const_cast<KROPropertyList*>(std::as_const(*this).objectForKey(key));
}

void KROPropertyList::setObjectForKey(std::string_view key, KROPropertyList value) {
    Dictionary* dictionary = dictionaryValue();
    if (!dictionary) {
        return;
    }
    if (KROPropertyList* existing = objectForKey(key)) {
        *existing = std::move(value);
        return;
    }
    dictionary->emplace_back(std::string(key), std::move(value));
}

void KROPropertyList::removeObjectForKey(std::string_view key) {
    if (Dictionary* dictionary = dictionaryValue()) {
        std::erase_if(*dictionary, [&](const Entry& entry) { return entry.first == key; });
    }
}

std::vector<std::string> KROPropertyList::allKeys() const {
    std::vector<std::string> keys;
    if (const Dictionary* dictionary = dictionaryValue()) {
        keys.reserve(dictionary->size());
        for (const auto& entry : *dictionary) {
            keys.push_back(entry.first);
        }
    }
    return keys;
}

const KROPropertyList* KROPropertyList::objectAtIndex(std::size_t index) const {
    const Array* array = arrayValue();
    if (!array || index >= array->size()) {
        return nullptr;
    }
    return &(*array)[index];
}

void KROPropertyList::addObject(KROPropertyList value) {
    if (Array* array = arrayValue()) {
        array->push_back(std::move(value));
    }
}

std::size_t KROPropertyList::count() const {
    if (const Array* array = arrayValue()) {
        return array->size();
    }
    if (const Dictionary* dictionary = dictionaryValue()) {
        return dictionary->size();
    }
    return 0;
}

// Reals compare by value, except that NaN equals NaN so that a value read
// back equals the one written.
bool KROPropertyList::operator==(const KROPropertyList& other) const {
    if (value_.index() != other.value_.index()) {
        return false;
    }
    if (const double* real = realValue()) {
        const double otherReal = *other.realValue();
        return *real == otherReal || (std::isnan(*real) && std::isnan(otherReal));
    }
    return value_ == other.value_;
}

// ---------------------------------------------------------------------------
// Description.

namespace {

std::string descriptionOfDate(KRODate date) {
    const std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(date));
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &parts);
    return text;
}

std::string descriptionOfData(const KROData& data) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text = "{length = " + std::to_string(data.size()) + ", bytes = 0x";
    for (std::uint8_t byte : data) {
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 0x0F]);
    }
    return text + "}";
}

std::string descriptionOfReal(double value) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

std::string descriptionAtDepth(const KROPropertyList& value, std::size_t depth) {
    const std::string indent(4 * depth, ' ');
    const std::string inner(4 * (depth + 1), ' ');
    switch (value.type()) {
    case KROPropertyList::Type::String:
        return *value.stringValue();
    case KROPropertyList::Type::Integer:
        return std::to_string(*value.integerValue());
    case KROPropertyList::Type::Real:
        return descriptionOfReal(*value.realValue());
    case KROPropertyList::Type::Boolean:
        return *value.booleanValue() ? "1" : "0";
    case KROPropertyList::Type::Date:
        return descriptionOfDate(*value.dateValue());
    case KROPropertyList::Type::Data:
        return descriptionOfData(*value.dataValue());
    case KROPropertyList::Type::Array: {
        std::string text = "(";
        const auto& array = *value.arrayValue();
        for (std::size_t i = 0; i < array.size(); ++i) {
            text += (i == 0 ? "\n" : ",\n") + inner + descriptionAtDepth(array[i], depth + 1);
        }
        return text + "\n" + indent + ")";
    }
    case KROPropertyList::Type::Dictionary: {
        std::string text = "{\n";
        for (const auto& [key, entry] : *value.dictionaryValue()) {
            text += inner + key + " = " + descriptionAtDepth(entry, depth + 1) + ";\n";
        }
        return text + indent + "}";
    }
    }
    return {};
}

} // namespace

std::string KROPropertyList::description() const {
    return descriptionAtDepth(*this, 0);
}

// ---------------------------------------------------------------------------
// Reading and writing.

std::shared_ptr<KROPropertyList> KROPropertyList::fromData(const void* bytes, std::size_t length,
                                                           KROErrorPtr* error) {
    PlistPointer root = bytes ? parseBytes(static_cast<const char*>(bytes), length) : nullptr;
    std::optional<KROPropertyList> value;
    if (root) {
        value = valueFromNode(root.get(), 0);
    }
    if (!value) {
        KROFail<KROCocoaError>(error, kPropertyListReadCorruptError, kReadActionKey);
        return nullptr;
    }
    return std::make_shared<KROPropertyList>(std::move(*value));
}

std::shared_ptr<KROPropertyList> KROPropertyList::fromFile(const std::filesystem::path& path,
                                                           KROErrorPtr* error) {
    std::string bytes;
    if (const int failure = readFileBytes(path, bytes)) {
        KROFailWithNSError(error, KRONSError::errorWithErrno(failure, KROFileAccess::reading),
                           kReadActionKey);
        return nullptr;
    }
    return fromData(bytes.data(), bytes.size(), error);
}

std::string KROPropertyList::toXML() const {
    const PlistPointer root(nodeFromValue(*this));
    char* raw = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(root.get(), &raw, &length);
    if (!raw) {
        return {};
    }
    std::string text(raw, length);
    plist_to_xml_free(raw);
    return text;
}

bool KROPropertyList::writeToFile(const std::filesystem::path& path, KROErrorPtr* error) const {
    if (const int failure = replaceFileAtomically(path, toXML())) {
        return KROFailWithNSError(
            error, KRONSError::errorWithErrno(failure, KROFileAccess::writing), kWriteActionKey);
    }
    return true;
}

// Errors and localized texts: lookup order, the sentence, platform errors, alert and log.
#include <gtest/gtest.h>

#include <cerrno>
#include <unistd.h>

#include "../util/KROScratchDirectory.h"
#include "KROAlertCatcher.h"
#include "KROAllocationGuard.h"
#include "KROAudioStreamBasicDescription.h"
#include "KROErrorFamilies.h"
#include "KROLog.h"

namespace {

// Installs a host string table for the life of a test.
class HostStringTable {
public:
    HostStringTable(std::initializer_list<std::pair<std::string, const char*>> entries) {
        KROPropertyList table;
        for (const auto& [key, text] : entries) {
            table.setObjectForKey(key, text);
        }
        EXPECT_TRUE(table.writeToFile(directory_ / "host.strings"));
        KROSetHostStringTablePath(directory_ / "host.strings");
    }
    ~HostStringTable() { KROSetHostStringTablePath({}); }

private:
    KROScratchDirectory directory_;
};

std::string text(const char* key) {
    return KROLocalizedString(key);
}

} // namespace

// The library's table, the host's, then the key; reasons try decimal, then four-character keys.
TEST(KROError, TextsAreLookedUpInTheirOrder) {
    const auto abcd = static_cast<std::int32_t>(KROFourCharCode("abcd"));
    const auto wxyz = static_cast<std::int32_t>(KROFourCharCode("wxyz"));
    HostStringTable host{
        {"KROTestHostOnly_key", "Text of the host"},
        {"KROError_ok", "Replaced"},
        {"KROAudioConverterError_failureReason_abcd", "by characters"},
        {"KROAudioConverterError_failureReason_" + std::to_string(abcd), "by decimal"},
        {"KROAudioConverterError_failureReason_wxyz", "the wxyz reason"}};
    EXPECT_FALSE(KROLocalizedString(nullptr).has_value());
    EXPECT_EQ(text(""), "");
    EXPECT_EQ(text("KROError_ok"), "OK");
    EXPECT_EQ(text("KROTestHostOnly_key"), "Text of the host");
    EXPECT_EQ(text("KROTestNowhere_key"), "KROTestNowhere_key");
    EXPECT_EQ(KROAudioConverterError::failureReasonForError(abcd), "by decimal");
    EXPECT_EQ(KROAudioConverterError::failureReasonForError(wxyz), "the wxyz reason");
    EXPECT_EQ(KROBufferListError::failureReasonForError(1),
              text("KROBufferListError_failureReason_1"));
    for (const std::int32_t code : {123456, -7}) {
        EXPECT_NE(KROAudioStreamError::failureReasonForError(code).find(std::to_string(code)),
                  std::string::npos);
    }
}

// "<action> failed because <reason>.", the family's domain, user information
// and alert; an error is made only for an out-argument.
TEST(KROError, AnErrorIsOneSentenceOfItsFamily) {
    const auto error = KROFileError::errorWithCode(4, "Opening the file");
    const std::string reason = text("KROFileError_failureReason_4");
    EXPECT_EQ(error->description(), "Opening the file failed because " + reason + ".");
    EXPECT_EQ(error->domain(), "KROFileErrorDomain");
    const KROPropertyList& info = error->userInfo();
    EXPECT_EQ(info.count(), 3u);
    EXPECT_EQ(*info.objectForKey(NSLocalizedDescriptionKey)->stringValue(), error->description());
    EXPECT_EQ(*info.objectForKey(NSLocalizedFailureReasonErrorKey)->stringValue(), reason);
    EXPECT_EQ(*info.objectForKey(NSLocalizedRecoveryOptionsErrorKey),
              KROPropertyList(KROPropertyList::Array{"OK"}));
    EXPECT_EQ(&error->recoveryAttempter(), error.get());
    EXPECT_FALSE(error->attemptRecoveryFromError(*error, 0));
    EXPECT_EQ(KROBufferListError::alertMessage(), text("KROBufferListError_message"));
    KRO_EXPECT_NO_ALLOCATION(
        EXPECT_FALSE(KROFail<KROBufferListError>(nullptr, 1, "KROBufferList_action_create")));
    KROErrorPtr made;
    EXPECT_FALSE(KROFail<KROBufferListError>(&made, 1, "KROBufferList_action_create"));
    EXPECT_EQ(made->description().rfind(text("KROBufferList_action_create"), 0), 0u);
}

// The class follows the given error's domain; Cocoa codes compare unsigned.
TEST(KROError, APlatformErrorBecomesTheClassOfItsDomain) {
    const std::tuple<const char*, std::int64_t, const char*> cases[] = {
        {NSCocoaErrorDomain, 4, "KROFileError"},
        {NSCocoaErrorDomain, 1023, "KROFileError"},
        {NSCocoaErrorDomain, 1024, "KROCocoaError"},
        {NSCocoaErrorDomain, -1, "KROCocoaError"},
        {NSURLErrorDomain, 5, "KROURLError"},
        {NSXMLParserErrorDomain, 5, "KROXMLParserError"},
        {NSPOSIXErrorDomain, 71, "KROError"},
        {"SomeOtherDomain", 5, "KROError"}};
    KROPropertyList info;
    info.setObjectForKey(NSLocalizedDescriptionKey, "the platform's own text");
    for (const auto& [domain, code, className] : cases) {
        const auto error = KROAudioFileContentError::errorWithNSError(
            KRONSError::errorWithDomain(domain, code, info), "Reading");
        EXPECT_EQ(error->domain(), std::string(className) + "Domain") << domain << code;
        EXPECT_EQ(error->code(), code);
        EXPECT_EQ(error->description().rfind("Reading failed because ", 0), 0u);
        EXPECT_EQ(error->description().find("own text"), std::string::npos);
    }
    EXPECT_EQ(KROError::errorWithNSError(nullptr, "x"), nullptr);
}

TEST(KROError, PosixErrorsTakeTheirFileCodes) {
    const bool reading = true, writing = false;
    const std::tuple<int, bool, std::int64_t> cases[] = {
        {ENOENT, reading, 4},     {ENOENT, writing, 4},         {EACCES, reading, 257},
        {EACCES, writing, 513},   {ENOSPC, writing, 640},       {EEXIST, writing, 516},
        {EROFS, writing, 642},    {ENAMETOOLONG, reading, 258}, {EISDIR, reading, 256},
        {EPIPE, writing, -EPIPE}, {EINTR, reading, -EINTR}};
    for (const auto& [errnum, read, code] : cases) {
        const auto error = KRONSError::errorWithErrno(errnum, read ? KROFileAccess::reading
                                                                   : KROFileAccess::writing);
        EXPECT_EQ(error->domain(), code < 0 ? NSPOSIXErrorDomain : NSCocoaErrorDomain) << errnum;
        EXPECT_EQ(error->code(), std::abs(code)) << errnum;
        EXPECT_FALSE(error->localizedDescription().empty());
    }
    const auto wrapped = KROError::errorWithNSError(
        KRONSError::errorWithErrno(EACCES, KROFileAccess::writing), "Saving");
    EXPECT_EQ(wrapped->failureReason(), text("KROFileError_failureReason_513"));
}

// alert() reaches the host only while it runs; log() writes the sentence.
TEST(KROError, AlertAndLogReachTheHost) {
    int presented = 0;
    KROError::setAlertHost(
        {[] { return false; }, [&](std::shared_ptr<const KROError>) { ++presented; }});
    KROError::errorWithCode(1, "x")->alert();
    KROError::setAlertHost({});
    KROError::errorWithCode(1, "x")->alert();
    EXPECT_EQ(presented, 0);
    std::vector<std::string> lines;
    KROSetLogSink([&](const std::string& line) { lines.push_back(line); });
    KROAlertCatcher catcher;
    const auto error = KROMIDIError::errorWithCode(3, "Sending");
    error->alert();
    error->log();
    KROSetLogSink({});
    EXPECT_EQ(catcher.alerts, std::vector<std::shared_ptr<const KROError>>{error});
    EXPECT_EQ(lines, std::vector<std::string>{error->description()});
}

// Part 1.1: errors and localized reporting.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "KROAudioStreamBasicDescription.h"
#include "KROError.h"
#include "KROLog.h"

namespace {

// Installs a host string table for the life of a test.
class HostStringTable {
public:
    explicit HostStringTable(const KROPropertyList& entries) {
        path_ = std::filesystem::temp_directory_path() /
                ("krocore-host-" + std::to_string(::getpid()) + ".strings");
        EXPECT_TRUE(entries.writeToFile(path_));
        KROSetHostStringTablePath(path_);
    }
    ~HostStringTable() {
        KROSetHostStringTablePath({});
        std::filesystem::remove(path_);
    }

private:
    std::filesystem::path path_;
};

KROPropertyList entries(std::initializer_list<std::pair<const char*, const char*>> pairs) {
    KROPropertyList table;
    for (const auto& [key, text] : pairs) {
        table.setObjectForKey(key, text);
    }
    return table;
}

} // namespace

TEST(Part_1_1, KROLocalizedStringOfAnAbsentKeyIsAbsentOfAnEmptyKeyEmpty) {
    EXPECT_FALSE(KROLocalizedString(nullptr).has_value());
    EXPECT_EQ(KROLocalizedString(""), "");
}

TEST(Part_1_1, KROLocalizedStringReadsTheLibraryTable) {
    EXPECT_EQ(KROLocalizedString("KROError_ok"), "OK");
    EXPECT_EQ(KROLocalizedString("KROError_conjunction"), "failed because");
}

TEST(Part_1_1, AKeyPresentOnlyInTheApplicationsMainTableYieldsThatText) {
    HostStringTable host(entries({{"KROTestHostOnly_key", "Text of the host"}}));
    EXPECT_EQ(KROLocalizedString("KROTestHostOnly_key"), "Text of the host");
}

TEST(Part_1_1, AKeyInNeitherTableYieldsTheKey) {
    HostStringTable host(entries({{"KROTestHostOnly_key", "Text of the host"}}));
    EXPECT_EQ(KROLocalizedString("KROTestNowhere_key"), "KROTestNowhere_key");
}

TEST(Part_1_1, TheHostCannotOverrideWhatTheLibraryDefines) {
    HostStringTable host(entries({{"KROError_ok", "Overridden"}}));
    EXPECT_EQ(KROLocalizedString("KROError_ok"), "OK");
}

TEST(Part_1_1, ACodeOf1InKROBufferListErrorWithAnEntryUnderTheDecimalKeyUsesThatText) {
    const std::string text = KROLocalizedString("KROBufferListError_failureReason_1");
    ASSERT_NE(text, "KROBufferListError_failureReason_1");
    EXPECT_EQ(KROBufferListError::failureReasonForError(1), text);
    const auto error = KROBufferListError::errorWithCode(1, "Creating the list");
    EXPECT_EQ(error->failureReason(), text);
    EXPECT_EQ(error->code(), 1);
}

TEST(Part_1_1, APlatformCodeOfPrintableCharactersUsesTheCharacterKeysText) {
    HostStringTable host(
        entries({{"KROAudioConverterError_failureReason_wxyz", "the wxyz reason"}}));
    const auto code = static_cast<std::int32_t>(KROFourCharCode("wxyz"));
    EXPECT_EQ(KROAudioConverterError::failureReasonForError(code), "the wxyz reason");
}

TEST(Part_1_1, TheDecimalKeyIsTriedBeforeTheCharacterKey) {
    const auto code = static_cast<std::int32_t>(KROFourCharCode("abcd"));
    const std::string decimalKey = "KROAudioConverterError_failureReason_" + std::to_string(code);
    HostStringTable host(entries({{"KROAudioConverterError_failureReason_abcd", "by characters"},
                                  {decimalKey.c_str(), "by decimal"}}));
    EXPECT_EQ(KROAudioConverterError::failureReasonForError(code), "by decimal");
}

TEST(Part_1_1, ACodeWithNoEntryUnderEitherKeyUsesTheDefaultFormatWithTheCode) {
    const std::string expected =
        KROStringWithFormatArguments(KROLocalizedString("KROError_defaultFailureReason"), 123456);
    EXPECT_EQ(KROAudioStreamError::failureReasonForError(123456), expected);
    EXPECT_NE(expected.find("123456"), std::string::npos);
    EXPECT_EQ(KROAudioStreamError::failureReasonForError(-7).find("-7") != std::string::npos, true);
}

TEST(Part_1_1, TheSentenceEndsWithAFullStopAndJoinsItsThreePartsWithSingleBlanks) {
    const auto error = KROAudioStreamError::errorWithCode(987654, "Building the stream");
    const std::string reason = KROAudioStreamError::failureReasonForError(987654);
    EXPECT_EQ(error->description(), "Building the stream failed because " + reason + ".");
    EXPECT_EQ(error->localizedDescription(), error->description());
}

TEST(Part_1_1, TheDomainIsTheClassNameFollowedByDomain) {
    EXPECT_EQ(KROAudioStreamError::errorDomain(), "KROAudioStreamErrorDomain");
    EXPECT_EQ(KROAudioStreamError::errorWithCode(1, "x")->domain(), "KROAudioStreamErrorDomain");
    EXPECT_EQ(KROError::errorWithCode(1, "x")->domain(), "KROErrorDomain");
    EXPECT_EQ(KROAudioStreamError::errorWithCode(1, "x")->className(), "KROAudioStreamError");
}

TEST(Part_1_1, TheUserInformationHoldsTheFourEntries) {
    const auto error = KROFileError::errorWithCode(4, "Opening the file");
    const KROPropertyList& info = error->userInfo();
    EXPECT_EQ(info.count(), 3u); // the recovery attempter is the error itself (Part 1.1)
    EXPECT_EQ(*info.objectForKey(NSLocalizedDescriptionKey)->stringValue(), error->description());
    EXPECT_EQ(*info.objectForKey(NSLocalizedFailureReasonErrorKey)->stringValue(),
              KROLocalizedString("KROFileError_failureReason_4"));
    const KROPropertyList* options = info.objectForKey(NSLocalizedRecoveryOptionsErrorKey);
    ASSERT_NE(options, nullptr);
    ASSERT_EQ(options->count(), 1u);
    EXPECT_EQ(*options->objectAtIndex(0)->stringValue(), "OK");
    EXPECT_EQ(&error->recoveryAttempter(), error.get());
    EXPECT_FALSE(error->attemptRecoveryFromError(*error, 0));
    EXPECT_EQ(KROFileError::recoveryOptions(), std::vector<std::string>{"OK"});
}

TEST(Part_1_1, AlertMessageIsTheLocalizedMessageOfTheClass) {
    EXPECT_EQ(KROBufferListError::alertMessage(), KROLocalizedString("KROBufferListError_message"));
    EXPECT_NE(KROBufferListError::alertMessage(), "KROBufferListError_message");
}

TEST(Part_1_1, ErrorWithNSErrorCocoaCode4YieldsAKROFileErrorWithCode4) {
    const auto cause = KRONSError::errorWithDomain(NSCocoaErrorDomain, 4);
    const auto error = KROAudioFileContentError::errorWithNSError(cause, "Reading");
    ASSERT_NE(error, nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<KROFileError>(error), nullptr);
    EXPECT_EQ(error->className(), "KROFileError");
    EXPECT_EQ(error->code(), 4);
    EXPECT_EQ(error->domain(), "KROFileErrorDomain");
}

TEST(Part_1_1, ErrorWithNSErrorCocoaCode2000YieldsAKROCocoaError) {
    const auto error =
        KROError::errorWithNSError(KRONSError::errorWithDomain(NSCocoaErrorDomain, 2000), "x");
    EXPECT_EQ(error->className(), "KROCocoaError");
    EXPECT_EQ(error->code(), 2000);
}

TEST(Part_1_1, ErrorWithNSErrorComparesCocoaCodesUnsigned) {
    const auto negative =
        KROError::errorWithNSError(KRONSError::errorWithDomain(NSCocoaErrorDomain, -1), "x");
    EXPECT_EQ(negative->className(), "KROCocoaError");
    const auto edge =
        KROError::errorWithNSError(KRONSError::errorWithDomain(NSCocoaErrorDomain, 1023), "x");
    EXPECT_EQ(edge->className(), "KROFileError");
    const auto at1024 =
        KROError::errorWithNSError(KRONSError::errorWithDomain(NSCocoaErrorDomain, 1024), "x");
    EXPECT_EQ(at1024->className(), "KROCocoaError");
}

TEST(Part_1_1, ErrorWithNSErrorChoosesTheClassByDomain) {
    auto classFor = [](const char* domain) {
        return KROBufferListError::errorWithNSError(KRONSError::errorWithDomain(domain, 5), "x")
            ->className();
    };
    EXPECT_EQ(classFor(NSURLErrorDomain), "KROURLError");
    EXPECT_EQ(classFor(NSXMLParserErrorDomain), "KROXMLParserError");
    EXPECT_EQ(classFor(NSPOSIXErrorDomain), "KROError");
    EXPECT_EQ(classFor("SomeOtherDomain"), "KROError");
}

TEST(Part_1_1, ErrorWithNSErrorKeepsTheCodeAndNotTheGivenText) {
    KROPropertyList info;
    info.setObjectForKey(NSLocalizedDescriptionKey, "the platform's own text");
    const auto cause = KRONSError::errorWithDomain(NSPOSIXErrorDomain, 71, info);
    const auto error = KROError::errorWithNSError(cause, "Talking");
    EXPECT_EQ(error->code(), 71);
    EXPECT_EQ(error->description().find("platform's own text"), std::string::npos);
    EXPECT_EQ(error->description().rfind("Talking failed because ", 0), 0u);
}

TEST(Part_1_1, ErrorWithNSErrorWithNoErrorYieldsNoneAndDoesNotFail) {
    EXPECT_EQ(KROError::errorWithNSError(nullptr, "x"), nullptr);
    EXPECT_EQ(KROFileError::errorWithNSError(std::shared_ptr<KRONSError>(), "x"), nullptr);
}

TEST(Part_1_1, AlertWhileTheApplicationObjectIsNotRunningDoesNothing) {
    int presented = 0;
    KROError::setAlertHost(
        {[] { return false; }, [&](std::shared_ptr<const KROError>) { ++presented; }});
    KROError::errorWithCode(1, "x")->alert();
    EXPECT_EQ(presented, 0);
    KROError::setAlertHost({});
    KROError::errorWithCode(1, "x")->alert();
    EXPECT_EQ(presented, 0);
}

TEST(Part_1_1, AlertWhileTheApplicationIsRunningPresentsTheError) {
    std::shared_ptr<const KROError> shown;
    KROError::setAlertHost(
        {[] { return true; }, [&](std::shared_ptr<const KROError> error) { shown = error; }});
    const auto error = KROMIDIError::errorWithCode(3, "Sending");
    error->alert();
    KROError::setAlertHost({});
    EXPECT_EQ(shown.get(), error.get());
}

TEST(Part_1_1, LogWritesTheDescriptionToTheLog) {
    std::vector<std::string> lines;
    KROSetLogSink([&](const std::string& line) { lines.push_back(line); });
    const auto error = KROAudioStreamError::errorWithCode(2, "Starting");
    error->log();
    KROSetLogSink({});
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], error->description());
}

TEST(Part_1_1, AFailureSiteMakesNoErrorWhenNoOutArgumentIsGiven) {
    EXPECT_FALSE(KROFail<KROBufferListError>(nullptr, 1, "KROBufferList_action_create"));
    KROErrorPtr error;
    EXPECT_FALSE(KROFail<KROBufferListError>(&error, 1, "KROBufferList_action_create"));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->className(), "KROBufferListError");
    EXPECT_EQ(error->description().rfind(KROLocalizedString("KROBufferList_action_create"), 0), 0u);
}

TEST(Part_1_1, PosixErrorsTakeTheirCocoaFileCodes) {
    struct Case {
        int errnum;
        KROFileAccess access;
        const char* domain;
        std::int64_t code;
    };
    const Case cases[] = {
        {ENOENT, KROFileAccess::reading, NSCocoaErrorDomain, 4},
        {ENOENT, KROFileAccess::writing, NSCocoaErrorDomain, 4},
        {EACCES, KROFileAccess::reading, NSCocoaErrorDomain, 257},
        {EACCES, KROFileAccess::writing, NSCocoaErrorDomain, 513},
        {ENOSPC, KROFileAccess::writing, NSCocoaErrorDomain, 640},
        {EEXIST, KROFileAccess::writing, NSCocoaErrorDomain, 516},
        {EROFS, KROFileAccess::writing, NSCocoaErrorDomain, 642},
        {ENAMETOOLONG, KROFileAccess::reading, NSCocoaErrorDomain, 258},
        {EISDIR, KROFileAccess::reading, NSCocoaErrorDomain, 256},
        {EPIPE, KROFileAccess::writing, NSPOSIXErrorDomain, EPIPE},
        {EINTR, KROFileAccess::reading, NSPOSIXErrorDomain, EINTR},
    };
    for (const Case& c : cases) {
        const auto error = KRONSError::errorWithErrno(c.errnum, c.access);
        EXPECT_EQ(error->domain(), c.domain) << c.errnum;
        EXPECT_EQ(error->code(), c.code) << c.errnum;
        EXPECT_FALSE(error->localizedDescription().empty());
    }
}

TEST(Part_1_1, AnErrnoWrappedByAlgorithm4BecomesAKROFileErrorWithItsReason) {
    const auto error = KROError::errorWithNSError(
        KRONSError::errorWithErrno(EACCES, KROFileAccess::writing), "Saving");
    EXPECT_EQ(error->className(), "KROFileError");
    EXPECT_EQ(error->code(), 513);
    EXPECT_EQ(error->failureReason(), KROLocalizedString("KROFileError_failureReason_513"));
}

TEST(Part_1_1, EveryFamilyIsADirectSubclassOfKROErrorNamedAfterItsClass) {
    const auto& names = KROErrorFamilyNames();
    EXPECT_EQ(names.front(), "KROError");
    EXPECT_EQ(names.size(), 44u);
    const auto error = KROHTTPError::errorWithCode(404, "Fetching");
    EXPECT_NE(std::dynamic_pointer_cast<KROError>(error), nullptr);
    EXPECT_EQ(error->domain(), "KROHTTPErrorDomain");
}

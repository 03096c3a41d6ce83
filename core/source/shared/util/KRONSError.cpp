#include "KRONSError.h"

#include <cerrno>
#include <cstring>

#include "KROStringWithFormat.h"

const char* const NSCocoaErrorDomain = "NSCocoaErrorDomain";
const char* const NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
const char* const NSURLErrorDomain = "NSURLErrorDomain";
const char* const NSXMLParserErrorDomain = "NSXMLParserErrorDomain";

const char* const NSLocalizedDescriptionKey = "NSLocalizedDescription";
const char* const NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
const char* const NSLocalizedRecoveryOptionsErrorKey = "NSLocalizedRecoveryOptions";
const char* const NSRecoveryAttempterErrorKey = "NSRecoveryAttempter";

namespace {

// The platform's file error codes (NSCocoaErrorDomain).
enum : std::int64_t {
    NSFileNoSuchFileError = 4,
    NSFileReadUnknownError = 256,
    NSFileReadNoPermissionError = 257,
    NSFileReadInvalidFileNameError = 258,
    NSFileReadTooLargeError = 263,
    NSFileWriteUnknownError = 512,
    NSFileWriteNoPermissionError = 513,
    NSFileWriteInvalidFileNameError = 514,
    NSFileWriteFileExistsError = 516,
    NSFileWriteOutOfSpaceError = 640,
    NSFileWriteVolumeReadOnlyError = 642,
};

// The Cocoa file code for an errno, or 0 when none matches.
std::int64_t cocoaFileCode(int errnum, KROFileAccess access) {
    const bool reading = access == KROFileAccess::reading;
    switch (errnum) {
    case ENOENT:
    case ENOTDIR:
        return NSFileNoSuchFileError;
    case EACCES:
    case EPERM:
        return reading ? NSFileReadNoPermissionError : NSFileWriteNoPermissionError;
    case ENAMETOOLONG:
        return reading ? NSFileReadInvalidFileNameError : NSFileWriteInvalidFileNameError;
    case EFBIG:
        return reading ? NSFileReadTooLargeError : NSFileWriteUnknownError;
    case EEXIST:
        return NSFileWriteFileExistsError;
    case ENOSPC:
    case EDQUOT:
        return NSFileWriteOutOfSpaceError;
    case EROFS:
        return NSFileWriteVolumeReadOnlyError;
    case EISDIR:
    case EIO:
        return reading ? NSFileReadUnknownError : NSFileWriteUnknownError;
    default:
        return 0;
    }
}

} // namespace

KRONSError::KRONSError(std::string domain, std::int64_t code, KROPropertyList userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

std::shared_ptr<KRONSError> KRONSError::errorWithDomain(std::string domain, std::int64_t code,
                                                        KROPropertyList userInfo) {
    return std::make_shared<KRONSError>(std::move(domain), code, std::move(userInfo));
}

std::shared_ptr<KRONSError> KRONSError::errorWithErrno(int errnum, KROFileAccess access) {
    KROPropertyList userInfo;
    userInfo.setObjectForKey(NSLocalizedDescriptionKey, std::string(std::strerror(errnum)));
    if (std::int64_t code = cocoaFileCode(errnum, access)) {
        return errorWithDomain(NSCocoaErrorDomain, code, std::move(userInfo));
    }
    return errorWithDomain(NSPOSIXErrorDomain, errnum, std::move(userInfo));
}

std::string KRONSError::localizedDescription() const {
    if (const KROPropertyList* text = userInfo_.objectForKey(NSLocalizedDescriptionKey)) {
        if (const std::string* string = text->stringValue()) {
            return *string;
        }
    }
    return KROStringWithFormatArguments("The operation couldn\u2019t be completed. (%@ error %ld.)",
                                        domain_, code_);
}

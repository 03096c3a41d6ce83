// The platform's error object on Linux: a domain, a signed integer code and the
// user information entries.
//
// POSIX errors take a Linux form through errorWithErrno(): an errno becomes an
// error of "NSCocoaErrorDomain" with the file code of the platform where one
// matches, else one of "NSPOSIXErrorDomain" keeping the errno as its code.
//
//   errno                   reading                          writing
//   ENOENT, ENOTDIR         4   no such file                 4   no such file
//   EACCES, EPERM           257 no permission to read        513 no permission to write
//   ENAMETOOLONG            258 invalid file name            514 invalid file name
//   EFBIG                   263 file too large               512 unknown write error
//   EEXIST                  516 file exists                  516 file exists
//   ENOSPC, EDQUOT          640 out of space                 640 out of space
//   EROFS                   642 read-only volume             642 read-only volume
//   EISDIR                  256 unknown read error           512 unknown write error
//   EIO                     256 unknown read error           512 unknown write error
//   any other               NSPOSIXErrorDomain, code = errno
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "KROObject.h"
#include "KROPropertyList.h"

extern const char* const NSCocoaErrorDomain;
extern const char* const NSPOSIXErrorDomain;
extern const char* const NSURLErrorDomain;
extern const char* const NSXMLParserErrorDomain;

extern const char* const NSLocalizedDescriptionKey;
extern const char* const NSLocalizedFailureReasonErrorKey;
extern const char* const NSLocalizedRecoveryOptionsErrorKey;
extern const char* const NSRecoveryAttempterErrorKey;

// Which way a file was used when a POSIX call failed; it picks the code.
enum class KROFileAccess { reading, writing };

class KRONSError : public KROObject {
    KRO_DECLARE_CLASS(KRONSError)

public:
    KRONSError(std::string domain, std::int64_t code,
               KROPropertyList userInfo = KROPropertyList::dictionary());

    static std::shared_ptr<KRONSError> errorWithDomain(std::string domain, std::int64_t code,
                                                       KROPropertyList userInfo = {});
    // The Linux form of a POSIX error, by the table above.
    static std::shared_ptr<KRONSError> errorWithErrno(int errnum, KROFileAccess access);

    const std::string& domain() const { return domain_; }
    std::int64_t code() const { return code_; }
    const KROPropertyList& userInfo() const { return userInfo_; }

    // The text under NSLocalizedDescriptionKey, else the domain and code.
    std::string localizedDescription() const;
    std::string description() const override { return localizedDescription(); }

protected:
    // The platform initialiser, for subclasses that are built in two phases.
    void resetPlatformError(std::string domain, std::int64_t code, KROPropertyList userInfo) {
        domain_ = std::move(domain);
        code_ = code;
        userInfo_ = std::move(userInfo);
    }

private:
    std::string domain_;
    std::int64_t code_;
    KROPropertyList userInfo_;
};

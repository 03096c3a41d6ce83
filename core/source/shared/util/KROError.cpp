#include "KROError.h"

#include <mutex>

#include "KROLog.h"
#include "KROStringWithFormat.h"

namespace {

struct AlertHostSlot {
    std::mutex lock;
    KROAlertHost host;
};

AlertHostSlot& alertHostSlot() {
    static AlertHostSlot slot;
    return slot;
}

} // namespace

KROError::KROError() : KRONSError(domainForClassName(staticClassName()), 0) {}

KROErrorPtr KROError::errorWithCode(std::int64_t code, const std::string& action) {
    return makeError<KROError>(code, action);
}

std::string KROError::domainForClassName(std::string_view className) {
    return KROStringWithFormatArguments("%@Domain", className);
}

std::string KROError::alertMessageForClassName(std::string_view className) {
    return KROLocalizedString(KROStringWithFormatArguments("%@_message", className));
}

// The order decimal key, character key, default is kept: string tables that
// give a code both forms rely on the decimal one winning.
std::string KROError::failureReasonForClassName(std::string_view className, std::int32_t code) {
    const std::string decimalKey =
        KROStringWithFormatArguments("%@_failureReason_%d", className, code);
    if (std::string reason = KROLocalizedString(decimalKey); reason != decimalKey) {
        return reason;
    }
    const auto bits = static_cast<std::uint32_t>(code);
    const std::string characterKey = KROStringWithFormatArguments(
        "%@_failureReason_%c%c%c%c", className, static_cast<char>(bits >> 24),
        static_cast<char>(bits >> 16), static_cast<char>(bits >> 8), static_cast<char>(bits));
    if (std::string reason = KROLocalizedString(characterKey); reason != characterKey) {
        return reason;
    }
    return KROStringWithFormatArguments(KROLocalizedString("KROError_defaultFailureReason"), code);
}

std::vector<std::string> KROError::recoveryOptions() {
    return {KROLocalizedString("KROError_ok")};
}

// The sentence is "<action> <conjunction> <reason>."
KROError& KROError::initWithCode(std::int64_t code, const std::string& action) {
    const std::string name = className();
    const std::string reason = failureReasonForClassName(name, static_cast<std::int32_t>(code));
    const std::string sentence = KROStringWithFormatArguments(
        "%@ %@ %@.", action, KROLocalizedString("KROError_conjunction"), reason);

    KROPropertyList::Array options;
    for (std::string& option : recoveryOptions()) {
        options.emplace_back(std::move(option));
    }
    KROPropertyList userInfo;
    userInfo.setObjectForKey(NSLocalizedDescriptionKey, sentence);
    userInfo.setObjectForKey(NSLocalizedFailureReasonErrorKey, reason);
    userInfo.setObjectForKey(NSLocalizedRecoveryOptionsErrorKey, std::move(options));
    resetPlatformError(domainForClassName(name), code, std::move(userInfo));
    return *this;
}

// The code comparison is unsigned, so a negative Cocoa code counts as 1024 or
// above (kept). The given error's own text is not carried over.
KROErrorPtr KROError::errorWithNSError(const KRONSError* error, const std::string& action) {
    if (!error) {
        return nullptr;
    }
    const std::string& domain = error->domain();
    const std::int64_t code = error->code();
    if (domain == NSCocoaErrorDomain) {
        if (static_cast<std::uint64_t>(code) < 1024) {
            return KROFileError::errorWithCode(code, action);
        }
        return KROCocoaError::errorWithCode(code, action);
    }
    if (domain == NSURLErrorDomain) {
        return KROURLError::errorWithCode(code, action);
    }
    if (domain == NSXMLParserErrorDomain) {
        return KROXMLParserError::errorWithCode(code, action);
    }
    return KROError::errorWithCode(code, action);
}

std::string KROError::failureReason() const {
    if (const KROPropertyList* reason = userInfo().objectForKey(NSLocalizedFailureReasonErrorKey)) {
        if (const std::string* text = reason->stringValue()) {
            return *text;
        }
    }
    return {};
}

bool KROError::attemptRecoveryFromError(const KRONSError&, std::size_t) const {
    return false;
}

void KROError::log() const {
    KROLogLine(description());
}

void KROError::alert() const {
    KROAlertHost host;
    {
        AlertHostSlot& slot = alertHostSlot();
        std::lock_guard guard(slot.lock);
        host = slot.host;
    }
    if (!host.isRunning || !host.presentError || !host.isRunning()) {
        return;
    }
    auto self = std::static_pointer_cast<const KROError>(shared_from_this());
    host.presentError(std::move(self));
}

void KROError::setAlertHost(KROAlertHost host) {
    AlertHostSlot& slot = alertHostSlot();
    std::lock_guard guard(slot.lock);
    slot.host = std::move(host);
}

const std::vector<std::string>& KROErrorFamilyNames() {
#define KRO_ERROR_FAMILY_NAME(Name) #Name,
    static const std::vector<std::string> names{"KROError",
                                                KRO_ERROR_FAMILY_LIST(KRO_ERROR_FAMILY_NAME)};
#undef KRO_ERROR_FAMILY_NAME
    return names;
}

// Errors. An operation that fails returns false or none and stores a KROError
// of its family in its last out-argument. The family is the class; its name
// selects the domain ("%@Domain") and the keys of its texts.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "KROLocalizedString.h"
#include "KRONSError.h"
#include "KROStringWithFormat.h"

class KROError;
using KROErrorPtr = std::shared_ptr<KROError>;

// How alert() reaches the host's user interface: a hook the host sets.
// presentError must hand over to the host's main thread and return without
// waiting.
struct KROAlertHost {
    std::function<bool()> isRunning;
    std::function<void(std::shared_ptr<const KROError>)> presentError;
};

class KROError : public KRONSError {
    KRO_DECLARE_CLASS(KROError)

public:
    // Use errorWithCode; a bare object is unusable until initWithCode.
    KROError();

    // Class operations, here for the class KROError; each family has the same
    // ones for its own name (KRO_ERROR_FAMILY).
    static KROErrorPtr errorWithCode(std::int64_t code, const std::string& action);
    // The class-level domain. C++ cannot give a static and a member function
    // one name, and the member domain() of the platform error must answer for
    // any family through a KROErrorPtr, so the class-level form is
    // errorDomain().
    static std::string errorDomain() { return domainForClassName(staticClassName()); }
    static std::string alertMessage() { return alertMessageForClassName(staticClassName()); }
    static std::string failureReasonForError(std::int32_t code) {
        return failureReasonForClassName(staticClassName(), code);
    }

    // The class of the result comes from the given error's domain and code
    // (Cocoa below 1024: KROFileError, else KROCocoaError; URL: KROURLError; XML
    // parser: KROXMLParserError; others: KROError); the receiving family plays
    // no part. None when no error is given.
    static KROErrorPtr errorWithNSError(const KRONSError* error, const std::string& action);
    static KROErrorPtr errorWithNSError(const std::shared_ptr<KRONSError>& error,
                                        const std::string& action) {
        return errorWithNSError(error.get(), action);
    }

    // One entry, the localized "KROError_ok".
    static std::vector<std::string> recoveryOptions();

    // Reason, sentence and user information for the class of this object.
    KROError& initWithCode(std::int64_t code, const std::string& action);

    // The self reference of NSRecoveryAttempterErrorKey is dropped, since a
    // counted self reference would never be freed: the attempter is the error
    // itself, reached here.
    const KROError& recoveryAttempter() const { return *this; }
    bool attemptRecoveryFromError(const KRONSError& error, std::size_t optionIndex) const;

    std::string description() const override { return localizedDescription(); }
    std::string failureReason() const;

    // Writes description to the log.
    void log() const;
    // Presents the error through the host when its application is running;
    // otherwise nothing.
    void alert() const;
    static void setAlertHost(KROAlertHost host);

    // The class-level operations by class name, shared by every family.
    static std::string domainForClassName(std::string_view className);
    static std::string alertMessageForClassName(std::string_view className);
    static std::string failureReasonForClassName(std::string_view className, std::int32_t code);

protected:
    template <typename Family>
    static std::shared_ptr<Family> makeError(std::int64_t code, const std::string& action) {
        auto error = std::make_shared<Family>();
        error->initWithCode(code, action);
        return error;
    }
};

// Declares a family: a direct subclass of KROError with no field and no
// operation of its own, only its name.
#define KRO_ERROR_FAMILY(Name)                                                                     \
    class Name : public KROError {                                                                 \
        KRO_DECLARE_CLASS(Name)                                                                    \
    public:                                                                                        \
        static std::shared_ptr<Name> errorWithCode(std::int64_t code, const std::string& action) { \
            return makeError<Name>(code, action);                                                  \
        }                                                                                          \
        static std::string errorDomain() { return domainForClassName(staticClassName()); }         \
        static std::string alertMessage() { return alertMessageForClassName(staticClassName()); }  \
        static std::string failureReasonForError(std::int32_t code) {                              \
            return failureReasonForClassName(staticClassName(), code);                             \
        }                                                                                          \
    }

// The failure site: when the caller gave an out-argument, stores an error of
// the family with the localized action of actionKey. Returns false so that a
// site can read `return KROFail<KROBufferListError>(error, 1, "...");`.
template <typename Family>
bool KROFail(KROErrorPtr* error, std::int64_t code, std::string_view actionKey) {
    if (error) {
        *error = Family::errorWithCode(code, KROLocalizedString(actionKey));
    }
    return false;
}

// The same with an action text that is a format, formatted with the thing
// concerned.
template <typename Family, typename... Arguments>
bool KROFailWithFormat(KROErrorPtr* error, std::int64_t code, std::string_view actionKey,
                       Arguments&&... arguments) {
    if (error) {
        *error = Family::errorWithCode(
            code, KROStringWithFormatArguments(KROLocalizedString(actionKey),
                                               std::forward<Arguments>(arguments)...));
    }
    return false;
}

// Passes a platform error up, wrapped by errorWithNSError with the caller's
// action.
inline bool KROFailWithNSError(KROErrorPtr* error, const std::shared_ptr<KRONSError>& cause,
                               std::string_view actionKey) {
    if (error) {
        *error = KROError::errorWithNSError(cause, KROLocalizedString(actionKey));
    }
    return false;
}

#include "KROErrorFamilies.h"

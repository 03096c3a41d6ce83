#include "KROAudioFilenameSchemes.h"

#include <algorithm>

#include "KROError.h"
#include "KROLog.h"
#include "KROResources.h"

namespace {

constexpr const char* kPreferenceKey = "KROAudioFilenameSchema";

void registerBuiltInSchemes(KROUserDefaults& defaults) {
    const auto builtIn = KROPropertyList::fromFile(KROResourcePath("KROAudioFilenameSchema.plist"));
    if (builtIn && builtIn->isArray()) {
        defaults.registerDefaults({{kPreferenceKey, *builtIn}});
    }
}

} // namespace

KROAudioFilenameSchemes& KROAudioFilenameSchemes::sharedInstance() {
    static KROAudioFilenameSchemes* const schemes =
        new KROAudioFilenameSchemes(KROUserDefaults::standardUserDefaults());
    return *schemes;
}

KROAudioFilenameSchemes::KROAudioFilenameSchemes(KROUserDefaults& defaults) : defaults_(defaults) {
    registerBuiltInSchemes(defaults_);
    const auto stored = defaults_.objectForKey(kPreferenceKey);
    if (!stored || !stored->isArray()) {
        return;
    }
    // Each insertion writes through, so from here on the user's list exists
    // and later built-in defaults no longer replace it.
    for (const KROPropertyList& properties : *stored->arrayValue()) {
        insertObjectInSchemesAtIndex(KROAudioFilenameScheme::schemeWithProperties(properties),
                                     schemes_.size());
    }
}

KROAudioFilenameSchemes::~KROAudioFilenameSchemes() {
    for (const auto& scheme : schemes_) {
        scheme->setChangeHandler(nullptr);
    }
}

void KROAudioFilenameSchemes::synchronize() {
    KROPropertyList::Array list;
    for (const auto& scheme : schemes_) {
        list.push_back(scheme->properties());
    }
    KROErrorPtr error;
    if (!defaults_.setObjectForKey(kPreferenceKey, std::move(list), &error) && error) {
        error->log();
    }
}

std::shared_ptr<KROAudioFilenameScheme>
KROAudioFilenameSchemes::schemeForFilename(std::string_view filename) const {
    for (const auto& scheme : schemes_) {
        if (scheme->parseFilename(filename)) {
            return scheme;
        }
    }
    return nullptr;
}

std::shared_ptr<KROAudioFilenameScheme>
KROAudioFilenameSchemes::schemeWithExpression(std::string_view expression) const {
    if (expression.empty()) {
        return nullptr;
    }
    for (const auto& scheme : schemes_) {
        if (scheme->expression() == expression) {
            return scheme;
        }
    }
    return nullptr;
}

std::shared_ptr<KROAudioFilenameScheme>
KROAudioFilenameSchemes::objectInSchemesAtIndex(std::size_t index) const {
    return index < schemes_.size() ? schemes_[index] : nullptr;
}

void KROAudioFilenameSchemes::insertObjectInSchemesAtIndex(
    std::shared_ptr<KROAudioFilenameScheme> scheme, std::size_t index) {
    scheme->setChangeHandler([this](const KROAudioFilenameScheme&) { synchronize(); });
    const auto at =
        schemes_.begin() + static_cast<std::ptrdiff_t>(std::min(index, schemes_.size()));
    schemes_.insert(at, std::move(scheme));
    synchronize();
}

void KROAudioFilenameSchemes::removeObjectFromSchemesAtIndex(std::size_t index) {
    if (index >= schemes_.size()) {
        return;
    }
    schemes_[index]->setChangeHandler(nullptr);
    schemes_.erase(schemes_.begin() + static_cast<std::ptrdiff_t>(index));
    synchronize();
}

#include "KROAudioFileContentClass.h"

#include "KROAudioFileContent.h"
#include "KROClassRegistry.h"

KROAudioFileContentClass::KROAudioFileContentClass(
    std::shared_ptr<const KROAudioFileContent> prototype)
    : prototype_(std::move(prototype)) {}

std::string KROAudioFileContentClass::name() const {
    return prototype_->className();
}

std::string KROAudioFileContentClass::format() const {
    return prototype_->format();
}

std::string KROAudioFileContentClass::extension() const {
    return prototype_->extension();
}

bool KROAudioFileContentClass::supportsURL(const std::filesystem::path& url) const {
    return prototype_->supportsURL(url);
}

std::shared_ptr<KROAudioFileContent> KROAudioFileContentClass::makeContent() const {
    return std::dynamic_pointer_cast<KROAudioFileContent>(
        KROClassRegistry::sharedRegistry().makeObject(name()));
}

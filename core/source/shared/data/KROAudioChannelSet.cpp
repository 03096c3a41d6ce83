#include "KROAudioChannelSet.h"

#include <algorithm>
#include <functional>

std::shared_ptr<KROAudioChannelSet> KROAudioChannelSet::setWithName(std::string name,
                                                                    std::string identifier) {
    auto set = std::make_shared<KROAudioChannelSet>();
    set->initWithName(std::move(name), std::move(identifier));
    return set;
}

KROAudioChannelSet& KROAudioChannelSet::initWithName(std::string name, std::string identifier) {
    name_ = std::move(name);
    identifier_ = std::move(identifier);
    return *this;
}

std::shared_ptr<KROAudioChannelDescription>
KROAudioChannelSet::objectInDescriptionsAtIndex(std::size_t index) const {
    return index < descriptions_.size() ? descriptions_[index] : nullptr;
}

void KROAudioChannelSet::insertObjectInDescriptionsAtIndex(
    std::shared_ptr<KROAudioChannelDescription> description, std::size_t index) {
    const auto at =
        descriptions_.begin() + static_cast<std::ptrdiff_t>(std::min(index, descriptions_.size()));
    descriptions_.insert(at, std::move(description));
}

bool KROAudioChannelSet::isEqual(const KROObject& other) const {
    const auto* set = dynamic_cast<const KROAudioChannelSet*>(&other);
    return set && set->name_ == name_ && set->identifier_ == identifier_;
}

std::size_t KROAudioChannelSet::hash() const {
    return std::hash<std::string>{}(identifier_);
}

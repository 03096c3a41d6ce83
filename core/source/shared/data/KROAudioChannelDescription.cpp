#include "KROAudioChannelDescription.h"

#include <functional>

std::shared_ptr<KROAudioChannelDescription>
KROAudioChannelDescription::descriptionWithName(std::string name, std::string abbreviation) {
    auto description = std::make_shared<KROAudioChannelDescription>();
    description->initWithName(std::move(name), std::move(abbreviation));
    return description;
}

KROAudioChannelDescription& KROAudioChannelDescription::initWithName(std::string name,
                                                                     std::string abbreviation) {
    name_ = std::move(name);
    abbreviation_ = std::move(abbreviation);
    return *this;
}

bool KROAudioChannelDescription::isEqual(const KROObject& other) const {
    const auto* description = dynamic_cast<const KROAudioChannelDescription*>(&other);
    return description && description->name_ == name_ &&
           description->abbreviation_ == abbreviation_;
}

std::size_t KROAudioChannelDescription::hash() const {
    return std::hash<std::string>{}(name_);
}

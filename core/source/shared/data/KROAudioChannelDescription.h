// One channel of a layout: its localized name ("Left") and the short form
// that displays and file names use ("L").
#pragma once

#include <memory>
#include <string>

#include "KROObject.h"

class KROAudioChannelDescription : public KROObject {
    KRO_DECLARE_CLASS(KROAudioChannelDescription)

public:
    static std::shared_ptr<KROAudioChannelDescription>
    descriptionWithName(std::string name, std::string abbreviation);
    KROAudioChannelDescription& initWithName(std::string name, std::string abbreviation);

    const std::string& name() const { return name_; }
    void setName(std::string name) { name_ = std::move(name); }
    const std::string& abbreviation() const { return abbreviation_; }
    void setAbbreviation(std::string abbreviation) { abbreviation_ = std::move(abbreviation); }

    // Equal with an equal name and abbreviation; the hash is the name's.
    bool isEqual(const KROObject& other) const override;
    std::size_t hash() const override;

private:
    std::string name_;
    std::string abbreviation_;
};

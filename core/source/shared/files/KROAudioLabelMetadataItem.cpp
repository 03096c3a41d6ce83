#include "KROAudioLabelMetadataItem.h"

#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROAudioLabelMetadataItem, KROMetadataItem)

std::shared_ptr<KROAudioLabelMetadataItem>
KROAudioLabelMetadataItem::metadataItemWithValue(std::optional<KROPropertyList> value,
                                                 std::string key) {
    auto item = std::make_shared<KROAudioLabelMetadataItem>();
    item->setKey(std::move(key));
    item->setValue(std::move(value));
    return item;
}

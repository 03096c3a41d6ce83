// The streams the device tests play.
#pragma once

#include <filesystem>
#include <string_view>

#include "KROAudioStream.h"
#include "KROPropertyList.h"

inline const std::filesystem::path examples = std::filesystem::path(KRO_SOURCE_DIR) / "examples";

// sine -> meter -> output, a device head.
inline std::shared_ptr<KROAudioStream> exampleStream() {
    auto stream = std::make_shared<KROAudioStream>();
    return stream->initWithDescriptionFile(examples / "sine-to-level-meter.plist") ? stream
                                                                                   : nullptr;
}

// capture (an input head) -> through (a playthrough) -> playback (a render head).
inline std::shared_ptr<KROAudioStream> playthroughStream() {
    constexpr std::string_view description = R"(<plist version="1.0"><dict>
<key>processors</key><array>
  <dict><key>class</key><string>KROHardwareAudioProcessor</string>
    <key>identifier</key><string>capture</string><key>isInputHead</key><true/></dict>
  <dict><key>class</key><string>KROAudioPlaythrough</string>
    <key>identifier</key><string>through</string></dict>
  <dict><key>class</key><string>KROHardwareAudioProcessor</string>
    <key>identifier</key><string>playback</string><key>isRenderHead</key><true/></dict>
</array><key>connections</key><array>
  <dict><key>identifier</key><string>in</string>
    <key>input</key><string>capture</string><key>output</key><string>through</string></dict>
  <dict><key>identifier</key><string>out</string>
    <key>input</key><string>through</string><key>output</key><string>playback</string></dict>
</array></dict></plist>)";
    const auto list = KROPropertyList::fromData(description.data(), description.size());
    auto stream = std::make_shared<KROAudioStream>();
    return list && stream->initWithDescription(*list) ? stream : nullptr;
}

// The processor of the stream with the identifier, as the class asked for.
template <typename Processor>
std::shared_ptr<Processor> processorOf(const KROAudioStream& stream, const char* identifier) {
    return std::dynamic_pointer_cast<Processor>(stream.processorWithIdentifier(identifier));
}

// Every error family, each a direct subclass of KROError that adds nothing:
// the class name alone selects the domain and the table of failure reasons.
#pragma once

#include <string>
#include <vector>

#include "KROError.h"

// X(Name) for each family, grouped by the layer that raises it.
#define KRO_ERROR_FAMILY_LIST(X)                                                                   \
    /* Data */                                                                                     \
    X(KROBufferListError)                                                                          \
    X(KROAudioStreamDescriptionError)                                                              \
    X(KROAudioConverterError)                                                                      \
    /* Graph */                                                                                    \
    X(KROAudioProcessorError)                                                                      \
    X(KROAudioStreamError)                                                                         \
    X(KROMixerAudioProcessorError)                                                                 \
    X(KROSplitterAudioProcessorError)                                                              \
    X(KRORouterAudioProcessorError)                                                                \
    /* Files */                                                                                    \
    X(KROFileError)                                                                                \
    X(KROAudioFileContentError)                                                                    \
    /* The format handlers */                                                                      \
    X(KROAudioFileWAVEContentError)                                                                \
    X(KROAudioFileAIFFContentError)                                                                \
    X(KROAudioFileWAV64ContentError)                                                               \
    X(KROAudioFileCAFContentError)                                                                 \
    X(KROAudioFileAUContentError)                                                                  \
    X(KROAudioFileSDIIContentError)                                                                \
    X(KROAudioFileSFILContentError)                                                                \
    X(KROAudioFileDDPContentError)                                                                 \
    X(KROAudioFileFLACContentError)                                                                \
    X(KROAudioFileVorbisContentError)                                                              \
    X(KROAudioFileMP3ContentError)                                                                 \
    X(KROAudioFileM4AContentError)                                                                 \
    X(KROAudioFileInfoError)                                                                       \
    /* Processors */                                                                               \
    X(KRODelayAudioProcessorError)                                                                 \
    X(KRODynamicsAudioProcessorError)                                                              \
    X(KROSpectralEQAudioProcessorError)                                                            \
    /* Streaming */                                                                                \
    X(KROAudioFileAudioGeneratorError)                                                             \
    X(KROStreamWriterAudioProcessorError)                                                          \
    X(KROAudioFileWriterAudioProcessorError)                                                       \
    X(KROAudioWriterAudioProcessorError)                                                           \
    /* Arrangement */                                                                              \
    X(KROAudioFileArrangerAudioGeneratorError)                                                     \
    /* MIDI */                                                                                     \
    X(KROMIDIError)                                                                                \
    /* Utilities */                                                                                \
    X(KRODatabaseError)                                                                            \
    X(KRONetworkError)                                                                             \
    X(KROXMLParserError)                                                                           \
    /* Platform audio */                                                                           \
    X(KROAudioDeviceError)                                                                         \
    X(KROAudioPlaythroughError)                                                                    \
    X(KROOSXHardwareAudioProcessorError)                                                           \
    /* The audio unit hosts */                                                                     \
    X(APLAudioUnitAudioProcessorError)                                                             \
    /* Targets of errorWithNSError and of the file writers */                                      \
    X(KROCocoaError)                                                                               \
    X(KROURLError)                                                                                 \
    X(KROSecurityError)                                                                            \
    X(KROHTTPError)

#define KRO_ERROR_FAMILY_DECLARATION(Name) KRO_ERROR_FAMILY(Name);
KRO_ERROR_FAMILY_LIST(KRO_ERROR_FAMILY_DECLARATION)
#undef KRO_ERROR_FAMILY_DECLARATION

// "KROError" and the names of every family above, in that order.
const std::vector<std::string>& KROErrorFamilyNames();

// Part 1.1, Data model: every error family, each a direct subclass of
// KROError, by the Part that uses it.
#pragma once

#include <string>
#include <vector>

#include "KROError.h"

// X(Name) for each family, in the order of Part 1.1.
#define KRO_ERROR_FAMILY_LIST(X) \
    /* Part 1.2 */ \
    X(KROBufferListError) \
    /* Part 1.3 */ \
    X(KROAudioStreamDescriptionError) \
    /* Part 1.4 */ \
    X(KROAudioConverterError) \
    /* Part 2.1 */ \
    X(KROAudioProcessorError) \
    /* Part 2.2 */ \
    X(KROAudioStreamError) \
    /* Part 2.4 */ \
    X(KROMixerAudioProcessorError) \
    X(KROSplitterAudioProcessorError) \
    X(KRORouterAudioProcessorError) \
    /* Part 3.1 */ \
    X(KROFileError) \
    /* Part 3.3 */ \
    X(KROAudioFileContentError) \
    /* The format handlers of subsystem 3 */ \
    X(KROAudioFileWAVEContentError) \
    X(KROAudioFileAIFFContentError) \
    X(KROAudioFileWAV64ContentError) \
    X(KROAudioFileCAFContentError) \
    X(KROAudioFileAUContentError) \
    X(KROAudioFileSDIIContentError) \
    X(KROAudioFileSFILContentError) \
    X(KROAudioFileDDPContentError) \
    X(KROAudioFileFLACContentError) \
    X(KROAudioFileVorbisContentError) \
    X(KROAudioFileMP3ContentError) \
    X(KROAudioFileM4AContentError) \
    /* Part 3.9 */ \
    X(KROAudioFileInfoError) \
    /* Part 4.1 */ \
    X(KRODelayAudioProcessorError) \
    /* Part 4.4 */ \
    X(KRODynamicsAudioProcessorError) \
    /* Part 4.5 */ \
    X(KROSpectralEQAudioProcessorError) \
    /* Part 5.1 */ \
    X(KROAudioFileAudioGeneratorError) \
    /* Part 5.2 */ \
    X(KROStreamWriterAudioProcessorError) \
    /* Part 5.3 */ \
    X(KROAudioFileWriterAudioProcessorError) \
    X(KROAudioWriterAudioProcessorError) \
    /* Part 6.6 */ \
    X(KROAudioFileArrangerAudioGeneratorError) \
    /* Part 7.3 */ \
    X(KROMIDIError) \
    /* Part 8.4 */ \
    X(KRODatabaseError) \
    /* Part 8.5 */ \
    X(KRONetworkError) \
    /* Part 8.6 */ \
    X(KROXMLParserError) \
    /* Part 9.1 */ \
    X(KROAudioDeviceError) \
    X(KROAudioPlaythroughError) \
    X(KROOSXHardwareAudioProcessorError) \
    /* The audio unit hosts */ \
    X(APLAudioUnitAudioProcessorError) \
    /* No user: targets of Algorithm 4 and of Part 5.3 */ \
    X(KROCocoaError) \
    X(KROURLError) \
    X(KROSecurityError) \
    X(KROHTTPError)

#define KRO_ERROR_FAMILY_DECLARATION(Name) KRO_ERROR_FAMILY(Name);
KRO_ERROR_FAMILY_LIST(KRO_ERROR_FAMILY_DECLARATION)
#undef KRO_ERROR_FAMILY_DECLARATION

// "KROError" and the names of every family above, in that order.
const std::vector<std::string>& KROErrorFamilyNames();

// KROCore: the umbrella header. Includes every public header of libkrocore.
#pragma once

#include "KROVersion.h"

// Utilities and the object model
#include "KROCRC.h"
#include "KROClassRegistry.h"
#include "KRODeque.h"
#include "KROExtended80.h"
#include "KROLog.h"
#include "KROMultipartRequest.h"
#include "KRONotificationCenter.h"
#include "KROObject.h"
#include "KROPropertyList.h"
#include "KRORange.h"
#include "KROResources.h"
#include "KROStringHelpers.h"
#include "KROStringWithFormat.h"
#include "KROTextNumbers.h"
#include "KROTimeFormatter.h"
#include "KROXMLParser.h"

// Core audio data
#include "KROAudioBufferList.h"
#include "KROAudioBufferListRecord.h"
#include "KROAudioConverter.h"
#include "KROAudioRingBufferList.h"
#include "KROAudioStreamBasicDescription.h"
#include "KROAudioStreamDescription.h"
#include "KROBufferList.h"
#include "KROError.h"
#include "KROErrorFamilies.h"
#include "KROLocalizedString.h"
#include "KRONSError.h"

// Processing graph
#include "KROAudioAutomation.h"
#include "KROAudioBus.h"
#include "KROAudioBusObserver.h"
#include "KROAudioConnection.h"
#include "KROAudioGenerator.h"
#include "KROAudioProcessor.h"
#include "KROAudioProcessorDock.h"
#include "KROAudioStream.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROHardwareAudioProcessor.h"
#include "KROHeadAudioProcessor.h"
#include "KROIOAudioProcessor.h"

// Audio files
#include "KROFileReader.h"
#include "KROFileResource.h"
#include "KROFileStream.h"
#include "KROFileTransfer.h"
#include "KROFileWriter.h"
#include "KROResourceForkFinder.h"
#include "KROResourceForkParser.h"
#include "KROURLExtension.h"

// Signal processors and vector routines
#include "KROG711.h"
#include "KROLevelMeterAudioProcessor.h"
#include "KROLinearPCMConverter.h"
#include "KROMusicalNote.h"
#include "KROMusicalNotePerformer.h"
#include "KROPinkNoiseAudioGenerator.h"
#include "KROSampleConversion.h"
#include "KROSineWaveAudioGenerator.h"
#include "KROSineWaveSynthAudioGenerator.h"
#include "KROVectorOps.h"

// Platform audio
#include "KROAudioDevice.h"
#include "KROAudioDeviceBackend.h"
#include "KROAudioDeviceSource.h"
#include "KROAudioPlaythrough.h"
#include "KROJACKAudioDeviceBackend.h"
#include "KROOSXHardwareAudioProcessor.h"

#pragma once

// Umbrella header of krcommon, the common base module of the member account
// SDK, and its version symbols.

#include <krcommon/platform/core/Export.h>

extern "C" {
/// The library's version number, 1.0.
KRCOMMON_EXPORT extern const double krcommonVersionNumber;
/// "@(#)PROGRAM:krcommon  PROJECT:krcommon-1" followed by a line feed.
KRCOMMON_EXPORT extern const unsigned char krcommonVersionString[];
}

#include <krcommon/errors/KRSDKLogger.h>
#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/app/NotificationCenter.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/net/URL.h>
#include <krcommon/platform/net/URLRequest.h>

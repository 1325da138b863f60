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

#include <krcommon/config/KIHostService.h>
#include <krcommon/config/KRAppInfos.h>
#include <krcommon/errorpage/MM404H5Manager.h>
#include <krcommon/errorpage/MM404H5View.h>
#include <krcommon/errors/KIMutiLanguageServer.h>
#include <krcommon/errors/KRSDKLogger.h>
#include <krcommon/http/KRRequestSerialization.h>
#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/http/KRSDKResponseHandler.h>
#include <krcommon/platform/app/Application.h>
#include <krcommon/platform/app/Bundle.h>
#include <krcommon/platform/app/NotificationCenter.h>
#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/core/Error.h>
#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/dispatch/MainQueue.h>
#include <krcommon/platform/dispatch/OperationQueue.h>
#include <krcommon/platform/dispatch/Timer.h>
#include <krcommon/platform/io/SearchPaths.h>
#include <krcommon/platform/net/URL.h>
#include <krcommon/platform/net/URLRequest.h>
#include <krcommon/platform/net/URLSession.h>
#include <krcommon/report/KRCommonReqBaseParam.h>
#include <krcommon/report/KRReportParam.h>
#include <krcommon/report/KrCommonAdapter.h>
#include <krcommon/util/EncryptCommon.h>
#include <krcommon/util/KRSDKUtility.h>
#include <krcommon/util/OTTimerWeakTarget.h>

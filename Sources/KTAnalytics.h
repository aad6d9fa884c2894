#pragma once
// KTAnalytics, everything a host application uses, in one include:
//
//   #include <KTAnalytics/KTAnalytics.h>
//
//   kt::AnalyticsStackConfiguration configuration;
//   configuration.environment.eventGatewayBaseURL = "https://gateway.example";
//   auto sdk = kt::AnalyticsStack::start(configuration, &error);
//   sdk->tagEvent(kt::APEvent::make("like", {{"track", "quillarbor:tracks:1"}}));
//
// `start` builds every destination from the one configuration and makes the process-wide
// instances (`APAnalyticsController::sharedInstance()`, `SegmentWrapper::shared()`, the
// shared environment and dependency registry) its own; see Setup/AnalyticsStack.h.

#include "KTAnalytics/Analytics/FirebaseAnalyticsController.h"
#include "KTAnalytics/Analytics/FirebaseAnalyticsEventFactory.h"
#include "KTAnalytics/Analytics/FirebaseAnalyticsWrapping.h"
#include "KTAnalytics/AnalyticsProvider/APAnalyticsController.h"
#include "KTAnalytics/AnalyticsProvider/APEvent.h"
#include "KTAnalytics/AnalyticsProvider/APEventBuilder.h"
#include "KTAnalytics/Attribution/AttributableEventCenter.h"
#include "KTAnalytics/Attribution/AttributableEvents.h"
#include "KTAnalytics/Firebase/FirebaseABExperiments.h"
#include "KTAnalytics/Firebase/FirebaseABManager.h"
#include "KTAnalytics/Firebase/JsonFileRemoteConfig.h"
#include "KTAnalytics/Firebase/RemoteConfigProviding.h"
#include "KTAnalytics/KTFoundation/KTEnvironment.h"
#include "KTAnalytics/KTFoundation/KTLogger.h"
#include "KTAnalytics/KTFoundation/PrivacySettingsStoring.h"
#include "KTAnalytics/Middleware/PlaybackServicing.h"
#include "KTAnalytics/Promoted/AnalyticsEntityTagger.h"
#include "KTAnalytics/Segment/SegmentWrapper.h"
#include "KTAnalytics/Setup/AnalyticsStack.h"
#include "KTAnalytics/TrackingArchitecture/EventSender.h"

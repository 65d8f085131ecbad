// Notifications the SDK posts to itself. A handler that keeps data of the user subscribes to them
// instead of being called one by one by whoever ends a reset.
#pragma once

/// A user reset has sent what it could; every handler now clears what it keeps of the user. Posted
/// (synchronously) just before "KOV_INIT_NEW_USER".
inline constexpr const char* KOUserDataResetNotification = "KOUserDataResetNotification";

/// An in-app campaign's action asks for push permission and registration; the notification
/// handler, above the in-app handlers, carries it out (posted synchronously, on the main queue).
inline constexpr const char* KOPushRegistrationRequestedNotification = "KOPushRegistrationRequestedNotification";

/**
 * The network-connection service: what the device is connected through, and
 * the connection profiles it knows.
 *
 * Every function that returns an int returns 0 on success and an error code of
 * the implementation's own otherwise; output parameters are untouched on
 * failure. All callbacks arrive on the thread that runs GLib's default main
 * context.
 */
#ifndef NETWORK_CONNECTION_H
#define NETWORK_CONNECTION_H

/* A C header. NOLINTNEXTLINE(modernize-deprecated-headers) */
#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A client of the service. */
typedef void* connection_h;
/** One connection profile (a wired port, a wireless network, ...). */
typedef void* connection_profile_h;
/** A walk over the profiles. */
typedef void* connection_profile_iterator_h;

/** What the device's current connection runs over. */
typedef enum {
    CONNECTION_TYPE_DISCONNECTED = 0,
    CONNECTION_TYPE_WIFI = 1,
    CONNECTION_TYPE_CELLULAR = 2,
    CONNECTION_TYPE_ETHERNET = 3,
    CONNECTION_TYPE_BT = 4
} connection_type_e;

/** Wi-Fi state; the values below 2 mean "not connected". */
typedef enum { CONNECTION_WIFI_STATE_CONNECTED = 2 } connection_wifi_state_e;

/** Cellular state; the values below 5 mean "not connected". */
typedef enum { CONNECTION_CELLULAR_STATE_CONNECTED = 5 } connection_cellular_state_e;

/** Ethernet state; the values below 2 mean "not connected". */
typedef enum { CONNECTION_ETHERNET_STATE_CONNECTED = 2 } connection_ethernet_state_e;

/** Bluetooth state; the values below 2 mean "not connected". */
typedef enum { CONNECTION_BT_STATE_CONNECTED = 2 } connection_bt_state_e;

typedef enum {
    CONNECTION_PROFILE_TYPE_CELLULAR = 0,
    CONNECTION_PROFILE_TYPE_WIFI = 1,
    CONNECTION_PROFILE_TYPE_ETHERNET = 2,
    CONNECTION_PROFILE_TYPE_BT = 3
} connection_profile_type_e;

/** A profile's state, 0 (disconnected) to 3 (connected). */
typedef enum { CONNECTION_PROFILE_STATE_CONNECTED = 3 } connection_profile_state_e;

/** Which profiles an iterator walks over. */
typedef enum { CONNECTION_ITERATOR_TYPE_REGISTERED = 0 } connection_iterator_type_e;

typedef void (*connection_type_changed_cb)(connection_type_e type, void* user_data);
typedef void (*connection_profile_state_changed_cb)(connection_profile_state_e state,
                                                    void* user_data);

/** Makes a client. The caller releases it with connection_destroy. */
int connection_create(connection_h* connection);

/**
 * Releases a client and the callbacks registered on it. An iterator may be
 * passed as well, and is released then. Null is an error and has no effect.
 */
int connection_destroy(connection_h connection);

/** The type of the current connection. */
int connection_get_type(connection_h connection, connection_type_e* type);

int connection_get_wifi_state(connection_h connection, connection_wifi_state_e* state);
int connection_get_cellular_state(connection_h connection, connection_cellular_state_e* state);
int connection_get_ethernet_state(connection_h connection, connection_ethernet_state_e* state);
int connection_get_bt_state(connection_h connection, connection_bt_state_e* state);

/** Calls back when the type of the current connection changes; replaces an earlier callback. */
int connection_set_type_changed_cb(connection_h connection, connection_type_changed_cb callback,
                                   void* user_data);

/** Starts a walk over profiles. The caller releases it with connection_destroy. */
int connection_get_profile_iterator(connection_h connection, connection_iterator_type_e type,
                                    connection_profile_iterator_h* iterator);

/** True when connection_profile_iterator_next has another profile to give. */
bool connection_profile_iterator_has_next(connection_profile_iterator_h iterator);

/**
 * The next profile of a walk.
 *
 * @param profile  receives a handle that outlives the iterator and is never
 *                 released by the caller
 */
int connection_profile_iterator_next(connection_profile_iterator_h iterator,
                                     connection_profile_h* profile);

int connection_profile_get_type(connection_profile_h profile, connection_profile_type_e* type);

/** Calls back when the profile's state changes; replaces an earlier callback. */
int connection_profile_set_state_changed_cb(connection_profile_h profile,
                                            connection_profile_state_changed_cb callback,
                                            void* user_data);

/** Ends the profile's callback. A null profile is an error and has no effect. */
int connection_profile_unset_state_changed_cb(connection_profile_h profile);

#ifdef __cplusplus
}
#endif

#endif

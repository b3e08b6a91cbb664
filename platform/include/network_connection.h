/**
 * The network-connection service: the device's current connection and its
 * connection profiles.
 *
 * Every function that returns an int returns 0 on success and otherwise an error
 * code of the implementation's own, with its output parameters unchanged. A null
 * handle is an error without any effect. All callbacks run on the thread of
 * GLib's default main context.
 *
 * A caller must be prepared for values that an enumeration below does not name.
 */
#pragma once

/* A C header. NOLINTNEXTLINE(modernize-deprecated-headers) */
#include <stdbool.h>

/* In C++ the underlying type is fixed, so that any value of a platform's is a value of the type. */
#ifdef __cplusplus
#define CONNECTION_AS_INT : int
#else
#define CONNECTION_AS_INT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** A client of the service. */
typedef void* connection_h;
/** One connection profile (a wired port, a wireless network, ...). */
typedef void* connection_profile_h;
/** An iteration over the profiles. */
typedef void* connection_profile_iterator_h;

/** The medium of the device's current connection. */
typedef enum CONNECTION_AS_INT {
    CONNECTION_TYPE_DISCONNECTED = 0,
    CONNECTION_TYPE_WIFI = 1,
    CONNECTION_TYPE_CELLULAR = 2,
    CONNECTION_TYPE_ETHERNET = 3,
    CONNECTION_TYPE_BT = 4
} connection_type_e;

/** Wi-Fi state; every other value means "not connected". */
typedef enum CONNECTION_AS_INT { CONNECTION_WIFI_STATE_CONNECTED = 2 } connection_wifi_state_e;

/** Cellular state; every other value means "not connected". */
typedef enum CONNECTION_AS_INT {
    CONNECTION_CELLULAR_STATE_CONNECTED = 5
} connection_cellular_state_e;

/** Ethernet state; every other value means "not connected". */
typedef enum CONNECTION_AS_INT {
    CONNECTION_ETHERNET_STATE_CONNECTED = 2
} connection_ethernet_state_e;

/** Bluetooth state; every other value means "not connected". */
typedef enum CONNECTION_AS_INT { CONNECTION_BT_STATE_CONNECTED = 2 } connection_bt_state_e;

typedef enum CONNECTION_AS_INT {
    CONNECTION_PROFILE_TYPE_CELLULAR = 0,
    CONNECTION_PROFILE_TYPE_WIFI = 1,
    CONNECTION_PROFILE_TYPE_ETHERNET = 2,
    CONNECTION_PROFILE_TYPE_BT = 3
} connection_profile_type_e;

/** A profile's state, from 0 (disconnected) to 3 (connected). */
typedef enum CONNECTION_AS_INT {
    CONNECTION_PROFILE_STATE_CONNECTED = 3
} connection_profile_state_e;

/** Selects the profiles of an iteration. */
typedef enum CONNECTION_AS_INT {
    CONNECTION_ITERATOR_TYPE_REGISTERED = 0
} connection_iterator_type_e;

#undef CONNECTION_AS_INT

typedef void (*connection_type_changed_cb)(connection_type_e type, void* user_data);
typedef void (*connection_profile_state_changed_cb)(connection_profile_state_e state,
                                                    void* user_data);

/** Creates a client. The caller releases it with connection_destroy. */
int connection_create(connection_h* connection);

/** Releases a client and the callbacks registered on it, or an iterator. */
int connection_destroy(connection_h connection);

/** Reads the type of the current connection. */
int connection_get_type(connection_h connection, connection_type_e* type);

int connection_get_wifi_state(connection_h connection, connection_wifi_state_e* state);
int connection_get_cellular_state(connection_h connection, connection_cellular_state_e* state);
int connection_get_ethernet_state(connection_h connection, connection_ethernet_state_e* state);
int connection_get_bt_state(connection_h connection, connection_bt_state_e* state);

/**
 * Registers the callback for changes of the current connection's type; replaces
 * an earlier one. The registration ends when the client is released.
 *
 * @param user_data  passed on unchanged; must outlive the registration
 */
int connection_set_type_changed_cb(connection_h connection, connection_type_changed_cb callback,
                                   void* user_data);

/** Starts an iteration over profiles. The caller releases it with connection_destroy. */
int connection_get_profile_iterator(connection_h connection, connection_iterator_type_e type,
                                    connection_profile_iterator_h* iterator);

/** True when connection_profile_iterator_next has another profile to return. */
bool connection_profile_iterator_has_next(connection_profile_iterator_h iterator);

/**
 * Advances an iteration.
 *
 * @param profile  receives a handle that outlives the iterator and is never
 *                 released by the caller
 */
int connection_profile_iterator_next(connection_profile_iterator_h iterator,
                                     connection_profile_h* profile);

int connection_profile_get_type(connection_profile_h profile, connection_profile_type_e* type);

/**
 * Registers the callback for changes of the profile's state; replaces an earlier one.
 *
 * @param user_data  passed on unchanged; must outlive the registration
 */
int connection_profile_set_state_changed_cb(connection_profile_h profile,
                                            connection_profile_state_changed_cb callback,
                                            void* user_data);

/** Ends the registration of the profile's callback. */
int connection_profile_unset_state_changed_cb(connection_profile_h profile);

#ifdef __cplusplus
}
#endif

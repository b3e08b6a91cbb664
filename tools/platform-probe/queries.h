/**
 * The platform's queries with their results as text: the value and its name, or
 * "failed" with the error code.
 */
#pragma once

#include "network_connection.h"
#include "out_param.h"

#include <array>
#include <string>
#include <vector>

namespace platform_probe {

/** A query for the state of one type of connection. */
struct StateQuery {
    const char* name;
    /** The platform's function. */
    const char* function;
    connection_type_e type;
    /** The value that means "connected". */
    int connected;
    /** Calls it; its state as a number. A null state is passed on. */
    int (*get)(connection_h connection, int* state);
};

extern const std::array<StateQuery, 4> state_queries;

/** "ok", or "failed" with the error code. */
std::string describe_result(int result);
std::string describe(connection_type_e type);
std::string describe(connection_profile_state_e state);

std::string query_firmware();
std::string query_setting(const std::string& key);
std::string query_type(connection_h connection);
std::string query_state(connection_h connection, const StateQuery& query);

/**
 * Iterates over the profiles. Each is described by its number in `known` and its type.
 *
 * @param known  all profiles so far, in the order in which they were first seen
 */
std::string query_profiles(connection_h connection, std::vector<connection_profile_h>& known);

}  // namespace platform_probe

#include "system_information.h"

#include "platform.h"

int system_info_get_value_string(int key, char** value) {
    return simulated_platform::process_platform().get_value_string(key, value);
}

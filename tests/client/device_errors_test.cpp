#include <gtest/gtest.h>

#include "exit_status.h"
#include "state/update_error.h"

// The client knows the device's errors only by their messages in the log: a
// message changed on one side alone would end updates with the wrong status.
TEST(device_errors, each_message_of_the_program_gives_its_own_exit_status) {
    for (int code = ERROR_WRONG_INPUT_PARAMETERS; code <= ERROR_UPDATE_IN_PROGRESS; ++code) {
        const std::string message = update_error::instance().message(code);
        EXPECT_EQ(device_error(message).status, EXIT_DEVICE_ERROR + code) << message;
    }
    EXPECT_EQ(device_error("a message of a later program").status, EXIT_DEVICE_ERROR);
}

#pragma once

// The numbered failures of an update; each has its message for the user.
enum update_error_code : int {
    ERROR_WRONG_INPUT_PARAMETERS = 1,
    ERROR_BAD_HTTP_HEADER = 2,
    ERROR_UPLOAD_ABORTED = 3,
    ERROR_VALIDATION_FAILED = 4,
    ERROR_INSTALLATION_FAILED = 5,
    ERROR_UPLOAD_TIMEOUT = 6,
    ERROR_OUT_OF_MEMORY = 7,
    ERROR_UPDATE_ONGOING = 8,
    ERROR_UPDATE_DISABLED = 9,
    ERROR_UPDATE_IN_PROGRESS = 10,
};

// Ends failed updates. Every failure of an update goes through
// end_update_with_error: the error is logged for the user, the log and trace
// are saved to the persistent directory, and the state files are cleared so
// that the lock is free and the next update starts clean.
class update_error {
  public:
    static update_error& instance();

    // The message of a code; "" for a number that is no code.
    const char* message(int code) const;
    // Logs, saves and resets as above; returns -code.
    int end_update_with_error(int code);
    // Deletes the trace, lock and status files, then, 1.5 s later, the log,
    // so that progress requests can still show the final entry meanwhile.
    void reset();

    update_error(const update_error&) = delete;
    update_error& operator=(const update_error&) = delete;

  private:
    update_error() = default;
};

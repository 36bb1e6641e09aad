#pragma once

// A private device root for black-box tests run on the host: every instance
// is a fresh directory under the build tree that the `device-root` launcher
// mounts at the device's fixed paths, with recording fakes for the outside
// programs. Processes run in it through bubblewrap.

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct run_options {
    std::vector<std::string> args;                         // arguments after the program
    std::vector<std::pair<std::string, std::string>> env;  // the whole environment
    std::string stdin_data;
    int uid = 0;
    bool readonly_log = false;
    bool no_persistent = false;
    std::vector<std::string> bind_ro;  // extra host paths, read-only at the same path
    double timeout_seconds = 120;      // the process is killed after this long
};

struct run_result {
    std::string out;       // stdout, byte for byte
    std::string err;       // stderr (also copied to the test's stderr)
    int exit_status = -1;  // 0..255; 128+N if killed by signal N
    bool timed_out = false;
};

class device_root {
  public:
    device_root();
    ~device_root();
    device_root(const device_root&) = delete;
    device_root& operator=(const device_root&) = delete;

    // The host directory holding this root.
    const std::string& dir() const { return dir_; }
    // "/var/log/x" -> DIR/var-log/x; also /tmp, /var/tmp, /tolven/local and
    // /run/fake (the fakes' state). Any other path throws std::invalid_argument.
    std::string host_path(const std::string& device_path) const;
    bool exists(const std::string& device_path) const;
    std::string read(const std::string& device_path) const;  // empty when missing
    void write(const std::string& device_path, const std::string& bytes);
    void remove(const std::string& device_path);

    // Lines the fakes appended, one per call, e.g. "application stop".
    std::vector<std::string> record() const;
    // The same lines prefixed with the caller's uid, e.g. "uid=1000 reboot".
    std::vector<std::string> record_detail() const;
    void set_uci_value(const std::optional<std::string>& value);
    void set_installer_status(int status);
    void set_installer_delay(double seconds);
    void set_preupdate_delay(double seconds);

    class process {
      public:
        process(process&&) noexcept;
        process& operator=(process&&) = delete;
        process(const process&) = delete;
        ~process();  // kills a process that was not waited for
        // Host pid of the program itself (not of bwrap); waits until it runs.
        pid_t pid() const;
        bool write_stdin(const std::string& bytes);  // false once the reader is gone
        void close_stdin();
        void kill(int sig) const;
        // Closes standard input first unless told to keep it open (a stalled
        // client keeps its connection).
        run_result wait(bool close_input = true);

      private:
        friend class device_root;
        struct state;
        explicit process(std::unique_ptr<state> s);
        std::unique_ptr<state> s_;
    };

    // The updater binary of this build, run in the root.
    run_result run(const run_options& options);
    // Starts without feeding stdin_data: use write_stdin and close_stdin.
    process spawn(const run_options& options);
    // Any command in the root; argv[0] is looked up inside the root.
    run_result run_command(const std::vector<std::string>& argv, const run_options& options);
    process spawn_command(const std::vector<std::string>& argv, const run_options& options);

    // The updater binary and the emulator prefix the tests run it with.
    static std::vector<std::string> updater_command();
    // Any binary of this build, with the same emulator prefix.
    static std::vector<std::string> program_command(const std::string& binary);

  private:
    std::string dir_;
    int spawned_ = 0;
};

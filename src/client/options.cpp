#include "options.h"

#include <cctype>
#include <cstdlib>
#include <fstream>

#include "exit_status.h"

namespace {
constexpr char password_variable[] = "UPDATE_DEVICE_PASSWORD";
constexpr int longest_timeout_s = 86400;
constexpr int most_parallel = 256;

bool to_number(const std::string& text, int low, int high, int& value) {
    char* end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || number < low || number > high) return false;
    value = static_cast<int>(number);
    return true;
}

// "512K", "4M" or plain bytes, per second.
bool to_rate(const std::string& text, uint64_t& rate) {
    char* end = nullptr;
    const unsigned long long number = std::strtoull(text.c_str(), &end, 10);
    const std::string unit = end;
    uint64_t scale = 1;
    if (unit == "K" || unit == "k") scale = 1024;
    if (unit == "M" || unit == "m") scale = 1048576;
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) || number == 0 ||
        (scale == 1 && !unit.empty()) || number > (1ULL << 40)) {
        return false;
    }
    rate = number * scale;
    return true;
}

std::string trimmed(const std::string& line) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos) return "";
    return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

// One URL a line; blank lines and lines starting with '#' are skipped.
bool read_devices(const std::string& path, std::vector<std::string>& urls) {
    std::ifstream file(path);
    if (!file) return false;
    std::string line;
    while (std::getline(file, line)) {
        line = trimmed(line);
        if (!line.empty() && line[0] != '#') urls.push_back(device_base_url(line));
    }
    return !file.bad();
}

// The first line of the file, as htdigest and most secret stores keep it.
bool read_password(const std::string& path, std::string& password) {
    std::ifstream file(path);
    if (!file) return false;
    std::getline(file, password);
    if (!password.empty() && password.back() == '\r') password.pop_back();
    return !file.bad();
}

class parser {
  public:
    parser(int argc, char** argv, options& out) : args_(argv + 1, argv + argc), out_(out) {}

    bool run(std::string& error) {
        std::vector<std::string> positional;
        for (index_ = 0; index_ < args_.size(); ++index_) {
            std::string arg = args_[index_];
            if (arg == "--") {
                positional.insert(positional.end(), args_.begin() + index_ + 1, args_.end());
                break;
            }
            if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
                positional.push_back(arg);
            } else if (!option(arg, error)) {
                return false;
            }
        }
        if (out_.help || out_.version) return true;
        return finish(positional, error);
    }

  private:
    bool option(const std::string& arg, std::string& error) {
        const size_t equals = arg.find('=');
        const std::string name = arg.substr(0, equals);
        if (name == "--help" || name == "--version" || name == "--no-wait") {
            if (name == "--help") out_.help = true;
            if (name == "--version") out_.version = true;
            if (name == "--no-wait") out_.update.wait_for_restart = false;
            return true;
        }
        std::string value;
        if (equals != std::string::npos) {
            value = arg.substr(equals + 1);
        } else if (index_ + 1 < args_.size()) {
            value = args_[++index_];
        } else {
            error = name + " needs a value";
            return false;
        }
        if (name == "--user") {
            out_.update.who.user = value;
        } else if (name == "--password-file") {
            password_file_ = value;
        } else if (name == "--devices") {
            devices_file_ = value;
        } else if (name == "--timeout") {
            if (!to_number(value, 1, longest_timeout_s, out_.update.timeout_seconds)) {
                error = "--timeout takes seconds, 1 to " + std::to_string(longest_timeout_s);
                return false;
            }
        } else if (name == "--limit-rate") {
            if (!to_rate(value, out_.update.rate_limit)) {
                error = "--limit-rate takes bytes per second, with K or M for KiB or MiB";
                return false;
            }
        } else if (name == "--cacert") {
            out_.update.trust.ca_file = value;
        } else if (name == "--pin") {
            if (value.compare(0, 8, "sha256//") != 0) {
                error = "--pin takes sha256//BASE64, the digest of the device's public key";
                return false;
            }
            out_.update.trust.pin = value;
        } else if (name == "--known-devices") {
            out_.update.trust.known_devices = value;
        } else if (name == "--parallel") {
            if (!to_number(value, 1, most_parallel, out_.parallel)) {
                error = "--parallel takes a number, 1 to " + std::to_string(most_parallel);
                return false;
            }
        } else {
            error = "unknown option " + name;
            return false;
        }
        return true;
    }

    bool finish(std::vector<std::string>& positional, std::string& error) {
        if (positional.empty()) {
            error = "no package given";
            return false;
        }
        out_.update.package = positional.back();
        positional.pop_back();
        for (const std::string& url : positional)
            out_.urls.push_back(device_base_url(url));
        if (!devices_file_.empty() && !read_devices(devices_file_, out_.urls)) {
            error = "cannot read the devices file " + devices_file_;
            return false;
        }
        if (out_.urls.empty()) {
            error = "no device given";
            return false;
        }
        return password(error);
    }

    // Never from the command line, where other users see it.
    bool password(std::string& error) {
        credentials& who = out_.update.who;
        if (!password_file_.empty()) {
            if (who.user.empty()) {
                error = "--password-file without --user";
                return false;
            }
            if (!read_password(password_file_, who.password)) {
                error = "cannot read the password file " + password_file_;
                return false;
            }
        } else if (!who.user.empty()) {
            const char* value = std::getenv(password_variable);
            if (value == nullptr) {
                error =
                    std::string("no password: give --password-file or set ") + password_variable;
                return false;
            }
            who.password = value;
        }
        return true;
    }

    std::vector<std::string> args_;
    options& out_;
    size_t index_ = 0;
    std::string password_file_;
    std::string devices_file_;
};
}  // namespace

bool parse_options(int argc, char** argv, options& out, std::string& error) {
    return parser(argc, argv, out).run(error);
}

std::string device_base_url(const std::string& text) {
    // Devices serve HTTPS; their plain port only redirects.
    std::string url = text.find("://") == std::string::npos ? "https://" + text : text;
    while (!url.empty() && url.back() == '/')
        url.pop_back();
    const std::string page = "/update";
    if (url.size() > page.size() && url.compare(url.size() - page.size(), page.size(), page) == 0) {
        url.erase(url.size() - page.size());
    }
    return url;
}

std::string device_label(const std::string& url) {
    const size_t scheme = url.find("://");
    return scheme == std::string::npos ? url : url.substr(scheme + 3);
}

std::string usage_text() {
    return "usage: update-device [options] URL... PACKAGE\n"
           "       update-device [options] --devices FILE PACKAGE\n"
           "\n"
           "Updates the firmware of devices through their web interface, as the update\n"
           "page does: refuses a busy device, uploads PACKAGE, follows the device's log,\n"
           "waits for the restart and reads the saved log of the update.\n"
           "\n"
           "  --user NAME            sign in as NAME\n"
           "  --password-file FILE   the password is the file's first line; without it,\n"
           "                         the password is taken from $" +
           std::string(password_variable) +
           "\n"
           "  --timeout SECONDS      longest wait for the restart, and for a device's log\n"
           "                         to move once the package is sent (default 300)\n"
           "  --no-wait              end at the success entry, before the restart\n"
           "  --limit-rate RATE      upload at most RATE bytes per second (K, M: KiB, MiB)\n"
           "  --devices FILE         device URLs, one a line ('#' starts a comment)\n"
           "  --cacert FILE          trust https:// devices whose certificate this file\n"
           "                         holds (or signs) for the URL's name\n"
           "  --pin sha256//BASE64   trust an https:// device by its public key's digest\n"
           "  --known-devices FILE   trust on first use: record each device's key at the\n"
           "                         first contact, refuse a different one later\n"
           "  --parallel N           update up to N devices at once (default 1)\n"
           "  --help, --version\n"
           "\n"
           "Exit status:\n" +
           exit_status_table();
}

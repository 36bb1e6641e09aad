#include "options.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "device_url.h"
#include "exit_status.h"
#include "netrc_file.h"

namespace {
constexpr char password_variable[] = "UPDATE_DEVICE_PASSWORD";
constexpr int longest_timeout_s = 86400;
constexpr int most_parallel = 256;
constexpr int most_retries = 100;
constexpr double most_rate = 1099511627776.0;  // 1 TiB/s
constexpr size_t help_column = 25;
constexpr size_t help_width = 80;

// The command line as read, before the files it names are read.
struct parsed {
    options& out;
    std::string password_file;
    std::string devices_file;
};

// One option: its names, the word for its value (nullptr: it takes none),
// its --help text (' ' starts an indented line) and what it does, which
// returns an error message or "".
struct option_row {
    const char* name;
    char short_name;
    const char* value;
    const char* help;
    std::string (*apply)(parsed& p, const std::string& value);
};

bool to_number(const std::string& text, int low, int high, int& value) {
    char* end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || number < low || number > high) return false;
    value = static_cast<int>(number);
    return true;
}

// A positive decimal number with an optional unit among `units`, each one
// 1024 times the one before ("1.5M" of "KMG").
bool to_scaled(const std::string& text, const std::string& units, double& value) {
    char* end = nullptr;
    double number = std::strtod(text.c_str(), &end);
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0]))) return false;
    const std::string unit = end;
    if (!unit.empty()) {
        const size_t at = units.find(static_cast<char>(std::toupper(unit[0])));
        if (unit.size() != 1 || at == std::string::npos) return false;
        number *= std::pow(1024.0, static_cast<double>(at + 1));
    }
    value = number;
    return std::isfinite(number) && number > 0;
}

std::string seconds_value(const std::string& value, const char* name, int& seconds) {
    if (to_number(value, 1, longest_timeout_s, seconds)) return "";
    return std::string(name) + " takes seconds, 1 to " + std::to_string(longest_timeout_s);
}

// Options that only name a file or a host list: the value is kept as given.
template <std::string connection_settings::*field>
std::string keep_connection(parsed& p, const std::string& value) {
    p.out.update.connection.*field = value;
    return "";
}
template <std::string parsed::*field>
std::string keep(parsed& p, const std::string& value) {
    p.*field = value;
    return "";
}

const option_row option_table[] = {
    {"--user", 'u', "NAME",
     "sign in as NAME, with the password from --password-file or $UPDATE_DEVICE_PASSWORD "
     "(never from the command line)",
     [](parsed& p, const std::string& v) -> std::string {
         if (v.find(':') != std::string::npos) {
             return "--user takes a name only: the password comes from --password-file, "
                    "--netrc-file or $" +
                    std::string(password_variable);
         }
         p.out.update.connection.user = v;
         return "";
     }},
    {"--password-file", 0, "FILE", "the password is the file's first line",
     keep<&parsed::password_file>},
    {"--netrc-file", 0, "FILE",
     "each device's user and password from a netrc file (machine HOST login NAME password "
     "WORD; a 'default' entry for the others), instead of --user",
     keep_connection<&connection_settings::netrc_file>},
    {"--devices", 0, "FILE", "device URLs, one a line; '#' starts a comment",
     keep<&parsed::devices_file>},
    {"--parallel", 0, "N", "update up to N devices at once (default 1)",
     [](parsed& p, const std::string& v) -> std::string {
         if (to_number(v, 1, most_parallel, p.out.parallel)) return "";
         return "--parallel takes a number, 1 to " + std::to_string(most_parallel);
     }},
    {"--retry", 0, "N",
     "try a device up to N more times, after 1, 2, 4 ... s, when it is unreachable, busy, "
     "or the upload was lost before its update began; never once the device's log shows "
     "the update (default 0)",
     [](parsed& p, const std::string& v) -> std::string {
         if (to_number(v, 0, most_retries, p.out.retry.retries)) return "";
         return "--retry takes a number, 0 to " + std::to_string(most_retries);
     }},
    {"--wait-online", 0, "SECONDS",
     "wait up to SECONDS for a device that does not answer yet (one still booting)",
     [](parsed& p, const std::string& v) {
         return seconds_value(v, "--wait-online", p.out.retry.wait_online_seconds);
     }},
    {"--timeout", 0, "SECONDS",
     "longest wait for the restart, and for a device's log to move once the package is sent "
     "(default 300)",
     [](parsed& p, const std::string& v) {
         return seconds_value(v, "--timeout", p.out.update.timeout_seconds);
     }},
    {"--no-wait", 0, nullptr, "end at the success entry, before the restart",
     [](parsed& p, const std::string&) -> std::string {
         p.out.update.wait_for_restart = false;
         return "";
     }},
    {"--limit-rate", 0, "RATE",
     "upload at most RATE bytes per second to each device; K, M, G for KiB, MiB, GiB "
     "(1.5M: 1.5 MiB/s)",
     [](parsed& p, const std::string& v) -> std::string {
         double rate = 0;
         if (to_scaled(v, "KMG", rate) && rate >= 1 && rate <= most_rate) {
             p.out.update.rate_limit = static_cast<uint64_t>(rate);
             return "";
         }
         return "--limit-rate takes bytes per second, with K, M or G for KiB, MiB or GiB";
     }},
    {"--connect-timeout", 0, "SECONDS",
     "longest wait for a connection to a device (default 5; 0.5 for half a second)",
     [](parsed& p, const std::string& v) -> std::string {
         double seconds = 0;
         if (to_scaled(v, "", seconds) && seconds >= 0.001 && seconds <= longest_timeout_s) {
             p.out.update.connection.connect_timeout_ms = std::lround(seconds * 1000);
             return "";
         }
         return "--connect-timeout takes seconds, 0.001 to " + std::to_string(longest_timeout_s);
     }},
    {"--cacert", 0, "FILE",
     "trust an https:// device whose certificate FILE holds (or signs) for the URL's name",
     keep_connection<&connection_settings::ca_file>},
    {"--pin", 0, "sha256//BASE64",
     "trust an https:// device by the digest of its public key alone, as curl --pinnedpubkey",
     [](parsed& p, const std::string& v) -> std::string {
         if (v.compare(0, 8, "sha256//") != 0) return "--pin takes sha256//BASE64";
         p.out.update.connection.pin = v;
         return "";
     }},
    {"--known-devices", 0, "FILE",
     "trust on first use, as ssh: record each https:// device's key in FILE at the first "
     "contact, and refuse a device whose key differs later",
     keep_connection<&connection_settings::known_devices>},
    {"--proxy", 0, "URL",
     "reach the devices through this proxy; without it the variables http_proxy, https_proxy "
     "and no_proxy apply, as for curl",
     keep_connection<&connection_settings::proxy>},
    {"--noproxy", 0, "HOSTS", "hosts reached without a proxy, separated by commas ('*': all)",
     keep_connection<&connection_settings::noproxy>},
    {"--json", 0, nullptr,
     "JSON lines on standard output instead of text: one an event, and one final record a "
     "device (URL, package SHA-256 and size, exit status, the device's error, the verdict, "
     "times of each phase)",
     [](parsed& p, const std::string&) -> std::string {
         p.out.json = true;
         return "";
     }},
    {"--log", 0, "FILE", "the same JSON lines into FILE, beside the text",
     [](parsed& p, const std::string& v) -> std::string {
         p.out.log_file = v;
         return "";
     }},
    {"--help", 'h', nullptr, "this text",
     [](parsed& p, const std::string&) -> std::string {
         p.out.help = true;
         return "";
     }},
    {"--version", 0, nullptr, "the version",
     [](parsed& p, const std::string&) -> std::string {
         p.out.version = true;
         return "";
     }},
};

const option_row* find_option(const std::string& name) {
    for (const option_row& row : option_table) {
        const bool short_form =
            name.size() == 2 && row.short_name != 0 && name[1] == row.short_name;
        if (name == row.name || short_form) return &row;
    }
    return nullptr;
}

std::string trimmed(const std::string& line) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos) return "";
    return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
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
    parser(int argc, char** argv, options& out) : args_(argv + 1, argv + argc), p_{out, "", ""} {}

    bool run(std::string& error) {
        std::vector<std::string> positional;
        for (index_ = 0; index_ < args_.size() && error.empty(); ++index_) {
            const std::string& arg = args_[index_];
            if (arg == "--") {
                positional.insert(positional.end(), args_.begin() + index_ + 1, args_.end());
                break;
            }
            if (arg.size() > 1 && arg[0] == '-') {
                error = option(arg);
            } else {
                positional.push_back(arg);
            }
        }
        if (!error.empty()) return false;
        if (p_.out.help || p_.out.version) return true;
        error = finish(positional);
        return error.empty();
    }

  private:
    // "--name", "--name=value", "--name value", "-u value" or "-uvalue".
    std::string option(const std::string& arg) {
        const bool is_long = arg.compare(0, 2, "--") == 0;
        const size_t split = is_long ? arg.find('=') : std::min<size_t>(2, arg.size());
        const std::string name = arg.substr(0, split);
        const option_row* row = find_option(name);
        if (row == nullptr) return "unknown option " + name;
        const bool attached = split < arg.size();
        if (row->value == nullptr) {
            return attached ? name + " takes no value" : row->apply(p_, "");
        }
        if (attached) return row->apply(p_, arg.substr(is_long ? split + 1 : split));
        if (index_ + 1 >= args_.size()) return name + " needs a value (" + row->value + ")";
        return row->apply(p_, args_[++index_]);
    }

    std::string finish(std::vector<std::string>& positional) {
        if (positional.empty()) return "no package given";
        p_.out.update.package = positional.back();
        positional.pop_back();
        for (const std::string& text : positional) {
            std::string error = add_device(text, "");
            if (!error.empty()) return error;
        }
        if (!p_.devices_file.empty()) {
            std::string error = read_devices();
            if (!error.empty()) return error;
        }
        if (p_.out.urls.empty()) return "no device given";
        std::string error = password();
        return error.empty() ? netrc() : error;
    }

    std::string add_device(const std::string& text, const std::string& where) {
        const device_url device = device_url::parse(text);
        if (device.url.empty()) return where + device.error;
        if (!seen_.insert(device.url).second) {
            p_.out.notes.push_back(text + " names a device already listed: updated once");
            return "";
        }
        p_.out.urls.push_back(device.url);
        hosts_.push_back(device.host);
        return "";
    }

    // One URL a line; '#' starts a comment, blank lines are skipped.
    std::string read_devices() {
        std::ifstream file(p_.devices_file);
        if (!file) return "cannot read the devices file " + p_.devices_file;
        std::string line;
        for (int number = 1; std::getline(file, line); ++number) {
            const std::string text = trimmed(line.substr(0, line.find('#')));
            if (text.empty()) continue;
            std::string error =
                add_device(text, p_.devices_file + " line " + std::to_string(number) + ": ");
            if (!error.empty()) return error;
        }
        return file.bad() ? "cannot read the devices file " + p_.devices_file : "";
    }

    // Never from the command line, where other users see it.
    std::string password() {
        connection_settings& c = p_.out.update.connection;
        if (!c.netrc_file.empty() && (!c.user.empty() || !p_.password_file.empty())) {
            return "--netrc-file names each device's user: no --user or --password-file with it";
        }
        if (!p_.password_file.empty()) {
            if (c.user.empty()) return "--password-file without --user";
            if (!read_password(p_.password_file, c.password)) {
                return "cannot read the password file " + p_.password_file;
            }
        } else if (!c.user.empty()) {
            const char* value = std::getenv(password_variable);
            if (value == nullptr) {
                return std::string("no password: give --password-file or set ") + password_variable;
            }
            c.password = value;
        }
        return "";
    }

    // Every device must have its entry before the first is updated.
    std::string netrc() {
        const std::string& path = p_.out.update.connection.netrc_file;
        if (path.empty()) return "";
        netrc_file entries;
        if (!entries.read(path)) return "cannot read the netrc file " + path;
        for (const std::string& host : hosts_) {
            if (!entries.covers(host))
                return "the netrc file " + path + " has no entry for " + host;
        }
        return "";
    }

    std::vector<std::string> args_;
    parsed p_;
    size_t index_ = 0;
    std::set<std::string> seen_;
    std::vector<std::string> hosts_;
};

// "  -u, --user NAME     sign in ...": the text wrapped beside the names, or
// below them when they are too long.
std::string option_help(const option_row& row) {
    std::string text = row.short_name != 0 ? std::string("  -") + row.short_name + ", " : "      ";
    text += row.name;
    if (row.value != nullptr) text += std::string(" ") + row.value;
    const std::string indent(help_column, ' ');
    text +=
        text.size() + 2 > help_column ? "\n" + indent : std::string(help_column - text.size(), ' ');
    size_t column = help_column;
    std::istringstream words(row.help);
    std::string word;
    for (bool first = true; words >> word; first = false) {
        if (!first && column + 1 + word.size() >= help_width) {
            text += "\n" + indent;
            column = help_column;
        } else if (!first) {
            text += ' ';
            ++column;
        }
        text += word;
        column += word.size();
    }
    return text + "\n";
}
}  // namespace

bool parse_options(int argc, char** argv, options& out, std::string& error) {
    return parser(argc, argv, out).run(error);
}

std::string usage_text() {
    std::string text =
        "Usage: update-device [options] URL... PACKAGE\n"
        "  or:  update-device [options] --devices FILE PACKAGE\n"
        "\n"
        "Updates the firmware of devices through their web interface, as the update\n"
        "page does: refuses a busy device, uploads PACKAGE, follows the device's log,\n"
        "waits for the restart and reads the saved log of the update. A device with a\n"
        "status document tells the version and slot it runs before and after, and\n"
        "whether it kept the new one. Checks every option, device URL (http or https)\n"
        "and the package before sending anything.\n"
        "\n"
        "Options:\n";
    for (const option_row& row : option_table)
        text += option_help(row);
    return text +
           "\n"
           "Example:\n"
           "  update-device --netrc-file lab.netrc --devices line-3.txt --parallel 8 \\\n"
           "      --retry 3 --json firmware.pkg | jq -c 'select(.event == \"result\")'\n"
           "\n"
           "Exit status (with several devices, 1 when any failed; --json gives each\n"
           "device's own):\n" +
           exit_status_table();
}

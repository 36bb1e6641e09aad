#pragma once

// The fixed files and commands of the device. They are constants of the
// production binary on purpose: nothing at run time may point the program
// elsewhere. Tests reach them by running inside a private device root.

namespace paths {
inline constexpr char trace_file[] = "/var/log/updater-cgi.debug";
inline constexpr char status_file[] = "/var/log/updater-cgi.status";
inline constexpr char log_file[] = "/var/log/updater-cgi.log";
inline constexpr char lock_file[] = "/var/log/updater-cgi.lock";
inline constexpr char package_file[] = "/tmp/updater-cgi-temp.pkg";
inline constexpr char uci_output[] = "/var/tmp/uci_output";
// lighttpd keeps a body that is still arriving in files of this name here.
inline constexpr char upload_dir[] = "/var/tmp/";
inline constexpr char upload_prefix[] = "lighttpd-upload-";
// Survives the clean-up of /var/log and the reboot.
inline constexpr char persistent_dir[] = "/tolven/local/";
}  // namespace paths

namespace commands {
inline constexpr char sudo_prefix[] = "sudo ";
inline constexpr char uci_get[] = "/sbin/uci get ";
inline constexpr char preupdate[] = "sudo /usr/local/sbin/preupdate.sh";
inline constexpr char reboot_request[] = "sudo /sbin/reboot";
// After an update the prefix goes in front, hence the leading blank.
inline constexpr char reboot_after_update[] = " /sbin/reboot";
inline constexpr char stop_application[] = "/etc/init.d/application stop";
inline constexpr char install_package[] = "/usr/local/sbin/updater -f ";
inline constexpr char copy_file[] = "/bin/cp -f ";
}  // namespace commands

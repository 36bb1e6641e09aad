#pragma once

// Hands the received package to the device's own installer, after stopping
// the device's application. The package's format is the installer's business.
class installer {
  public:
    // True when the installer succeeded; the package file is then removed.
    // On failure it stays in place, and the application stays stopped.
    bool install();
};

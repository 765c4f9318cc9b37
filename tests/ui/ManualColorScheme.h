// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "ColorScheme.h"

namespace bonkwell {

// A desktop whose light or dark preference the test sets, and changes while the app runs.
class ManualColorScheme final : public ColorSchemeSource {
  public:
    explicit ManualColorScheme(ColorScheme scheme = ColorScheme::noPreference) : scheme_(scheme) {}
    ColorScheme current() const override { return scheme_; }
    void set(ColorScheme scheme) {
        scheme_ = scheme;
        emit changed(scheme);
    }

  private:
    ColorScheme scheme_;
};

}  // namespace bonkwell

// SPDX-License-Identifier: GPL-3.0-only
// A base for an object that may be copied, but only while neither side owns anything.
//
// A copy of an owning pointer would be released twice, and one that is overwritten never. So both sides of a
// copy have to own nothing; the process ends otherwise. Bases are copied before members: nothing is lost yet.
#pragma once

#include <glib.h>

// `Derived` has bool ownsNothing() const.
template <class Derived>
class CopiedEmpty {
  protected:
    CopiedEmpty() = default;
    CopiedEmpty(const CopiedEmpty& other) { g_assert(other.derived().ownsNothing()); }
    CopiedEmpty& operator=(const CopiedEmpty& other) {
        g_assert(derived().ownsNothing());
        g_assert(other.derived().ownsNothing());
        return *this;
    }
    ~CopiedEmpty() = default;

  private:
    const Derived& derived() const { return static_cast<const Derived&>(*this); }
};

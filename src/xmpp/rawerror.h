// SPDX-License-Identifier: GPL-3.0-only
// An error answer as the server sent it. gloox's own class drops what it does not know and
// prints nothing then.
#pragma once

#include <gloox/error.h>
#include <gloox/tag.h>

#include <memory>

namespace xmpp {

class RawError : public gloox::Error {
  public:
    // `element` is borrowed for the lifetime of the object.
    explicit RawError(const gloox::Tag& element) : Error(known(element).get()), m_element(element) {}

    // The caller owns the copy.
    gloox::Tag* tag() const override { return m_element.clone(); }

  private:
    // Only what gloox's constructor reads, the type and the first condition: it leaks a second unknown child.
    static std::unique_ptr<gloox::Tag> known(const gloox::Tag& element) {
        auto plain = std::make_unique<gloox::Tag>("error", "type", element.findAttribute("type"));
        for (const gloox::Tag* child : element.children()) {
            if (child->name() == "text")
                continue;
            plain->addChildCopy(child);
            break;
        }
        return plain;
    }

    const gloox::Tag& m_element;
};

}  // namespace xmpp

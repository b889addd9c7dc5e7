// SPDX-License-Identifier: GPL-3.0-only
// Reading an application id from control groups, labels, user tables and environments. No state. Only the
// outermost unit of a control group path is used, because the process itself can create groups below it.
#include "platform/bus/applicationid.h"

#include <optional>
#include <vector>

#include "util/applicationid.h"

namespace {

bool dropSuffix(std::string_view& text, std::string_view suffix) {
    if (!text.ends_with(suffix))
        return false;
    text.remove_suffix(suffix.size());
    return true;
}

int hexDigit(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    return -1;
}

// Resolves the \xHH escapes of a unit name; nullopt when one is malformed.
std::optional<std::string> unescape(std::string_view text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '\\') {
            plain += text[i];
            continue;
        }
        if (i + 3 >= text.size() || text[i + 1] != 'x' || hexDigit(text[i + 2]) < 0 ||
            hexDigit(text[i + 3]) < 0)
            return std::nullopt;
        plain += static_cast<char>(hexDigit(text[i + 2]) * 16 + hexDigit(text[i + 3]));
        i += 3;
    }
    return plain;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (size_t end; (end = text.find(separator)) != std::string_view::npos; text.remove_prefix(end + 1))
        parts.push_back(text.substr(0, end));
    parts.push_back(text);
    return parts;
}

std::string checkedId(std::string_view escaped) {
    std::optional<std::string> id = unescape(escaped);
    return id && isApplicationId(*id) ? *id : std::string();
}

// "app", an optional launcher, the id and an optional random part; `parts` is the number of
// parts without a launcher.
std::string idAmong(std::string_view name, size_t parts) {
    std::vector<std::string_view> found = split(name, '-');
    if ((found.size() != parts && found.size() != parts + 1) || found.front() != "app" ||
        found.back().empty())
        return {};
    const size_t id = found.size() - parts + 1;
    return found[id - 1].empty() ? std::string() : checkedId(found[id]);
}

bool isUnit(std::string_view component) {
    return component.ends_with(".service") || component.ends_with(".scope");
}

bool isUserManager(std::string_view component) {
    return component.starts_with("user@") && component.ends_with(".service");
}

// The control group path that the service manager uses: that of the unified hierarchy, else the named
// one of older kernels.
std::string_view managerPath(std::string_view text) {
    std::string_view named;
    for (const std::string_view line : split(text, '\n')) {
        if (line.starts_with("0::") && line != "0::/")
            return line.substr(3);
        const size_t at = line.find(":name=systemd:");
        if (at != std::string_view::npos)
            named = line.substr(at + 14);
    }
    return named;
}

}  // namespace

std::string applicationIdOfUnit(std::string_view unit) {
    if (dropSuffix(unit, ".scope"))
        return idAmong(unit, 3);
    if (!dropSuffix(unit, ".service"))
        return {};
    const size_t at = unit.find('@');
    if (at == std::string_view::npos || at + 1 == unit.size())
        return {};
    return idAmong(unit.substr(0, at), 2);
}

AppUnit appUnitOfCgroup(std::string_view text) {
    AppUnit unit;
    const std::string_view path = managerPath(text);
    for (const std::string_view component : split(path, '/')) {
        if (!component.empty())
            (unit.cgroup += '/') += component;
        if (isUserManager(component) && !unit.ofLogin) {
            unit.ofLogin = true;
            continue;
        }
        if (isUnit(component)) {
            unit.applicationId = applicationIdOfUnit(component);
            return unit;
        }
    }
    return unit;
}

std::string environmentValue(std::string_view environment, std::string_view key) {
    for (const std::string_view entry : split(environment, '\0')) {
        if (entry.size() > key.size() && entry.starts_with(key) && entry[key.size()] == '=')
            return std::string(entry.substr(key.size() + 1));
    }
    return {};
}

std::string applicationIdOfLabel(std::string_view label, std::string_view prefix) {
    while (!label.empty() && (label.back() == '\0' || label.back() == '\n'))
        label.remove_suffix(1);
    label = label.substr(0, label.find(" ("));
    if (prefix.empty() || !label.starts_with(prefix))
        return {};
    label.remove_prefix(prefix.size());
    return isApplicationId(label) ? std::string(label) : std::string();
}

std::string applicationIdOfUser(std::string_view table, unsigned user) {
    const std::string wanted = std::to_string(user);
    for (std::string_view line : split(table, '\n')) {
        line = line.substr(0, line.find('#'));
        const size_t end = line.find_first_of(" \t");
        if (end == std::string_view::npos || line.substr(0, end) != wanted)
            continue;
        line.remove_prefix(line.find_first_not_of(" \t", end) == std::string_view::npos
                               ? line.size()
                               : line.find_first_not_of(" \t", end));
        line = line.substr(0, line.find_last_not_of(" \t\r") + 1);
        return isApplicationId(line) ? std::string(line) : std::string();
    }
    return {};
}

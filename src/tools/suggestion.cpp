// SPDX-License-Identifier: GPL-3.0-only
// The nearest verbs: by their spelling, or by their second word alone, for somebody who left out the first.
#include "tools/suggestion.h"

#include <algorithm>

namespace {

constexpr size_t kMostSuggestions = 4;

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

// The first words of a verb, as many as were typed.
std::string startOf(const Verb& verb, size_t count) {
    return joined({verb.words.begin(), verb.words.begin() + static_cast<std::ptrdiff_t>(count)});
}

void addOnce(std::vector<std::string>& list, const std::string& text) {
    if (std::find(list.begin(), list.end(), text) == list.end())
        list.push_back(text);
}

std::vector<std::string> verbsWithSecondWord(const std::string& word, const std::vector<Verb>& verbs) {
    std::vector<std::string> found;
    for (const Verb& verb : verbs) {
        if (verb.words.size() == 2 && verb.words[1] == word)
            found.push_back(startOf(verb, 2));
    }
    return found;
}

// A third of the letters may be wrong, so that short words suggest nothing far-fetched.
std::vector<std::string> nearestVerbs(const std::vector<std::string>& words, const std::vector<Verb>& verbs) {
    const std::string typed = joined(words);
    size_t least = words.back().size() / 3 + 1;
    std::vector<std::string> found;
    for (const Verb& verb : verbs) {
        if (verb.words.size() < words.size())
            continue;
        const std::string start = startOf(verb, words.size());
        const size_t distance = editDistance(typed, start);
        if (distance > least)
            continue;
        if (distance < least)
            found.clear();
        least = distance;
        addOnce(found, start);
    }
    return found;
}

}  // namespace

size_t editDistance(const std::string& one, const std::string& other) {
    // Rows of the table of distances between the beginnings of both; the last three are enough.
    std::vector<size_t> before, last(other.size() + 1), row(other.size() + 1);
    for (size_t j = 0; j <= other.size(); ++j)
        last[j] = j;
    for (size_t i = 1; i <= one.size(); ++i) {
        row[0] = i;
        for (size_t j = 1; j <= other.size(); ++j) {
            const size_t replaced = last[j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
            row[j] = std::min({replaced, last[j] + 1, row[j - 1] + 1});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                row[j] = std::min(row[j], before[j - 2] + 1);
        }
        before = last;
        last = row;
    }
    return last[other.size()];
}

std::string suggestion(const std::vector<std::string>& words, const std::vector<Verb>& verbs) {
    std::vector<std::string> meant;
    if (words.size() == 1)
        meant = verbsWithSecondWord(words[0], verbs);
    if (meant.empty())
        meant = nearestVerbs(words, verbs);
    if (meant.empty() || meant.size() > kMostSuggestions)
        return "";
    std::string text = "did you mean ";
    for (size_t i = 0; i < meant.size(); ++i)
        text += (i == 0 ? "\"" : i + 1 == meant.size() ? " or \"" : ", \"") + meant[i] + "\"";
    return text + "?";
}

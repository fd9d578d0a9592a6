// Putting a page of HTML together. What is text and what is markup differ in type, so that no text of a file name
// or a log line ever acts as markup.
#pragma once

#include <initializer_list>
#include <string>

namespace upgradectl {

// Markup that is complete in itself: each element that it opens, it closes. It is well-formed XML, too.
struct Html {
    std::string markup;

    Html& operator+=(const Html& more) {
        markup += more.markup;
        return *this;
    }
};

inline Html operator+(Html first, const Html& second) {
    first += second;
    return first;
}

struct HtmlAttribute {
    const char* name;
    std::string value;  // as text; an empty one leaves the attribute out
};
using HtmlAttributes = std::initializer_list<HtmlAttribute>;

// Any bytes as text, which shows what is in them: what is no UTF-8 or no visible character is spelled out, as kavro::escaped()
// does.
Html htmlText(const std::string& bytes);

// An element with its content, or without any: <name/>. The name is one of ours.
Html htmlElement(const char* name, HtmlAttributes attributes, const Html& content);
Html htmlElement(const char* name, const Html& content);
Html htmlEmptyElement(const char* name, HtmlAttributes attributes);

}  // namespace upgradectl

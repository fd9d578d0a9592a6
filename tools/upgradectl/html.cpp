#include "tools/upgradectl/html.h"

#include "base/escaped_text.h"

namespace upgradectl {

namespace {

const char* entityOf(char character) {
    switch (character) {
        case '&':
            return "&amp;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '"':
            return "&quot;";
        case '\'':
            return "&#39;";
        default:
            return nullptr;
    }
}

std::string openingOf(const char* name, HtmlAttributes attributes) {
    std::string markup = std::string("<") + name;
    for (const HtmlAttribute& attribute : attributes) {
        if (attribute.value.empty()) {
            continue;
        }
        markup += std::string(" ") + attribute.name + "=\"" + htmlText(attribute.value).markup + '"';
    }
    return markup;
}

}  // namespace

Html htmlText(const std::string& bytes) {
    Html html;
    html.markup.reserve(bytes.size());
    for (const char character : kavro::escaped(bytes)) {
        const char* entity = entityOf(character);
        entity == nullptr ? html.markup += character : html.markup += entity;
    }
    return html;
}

Html htmlElement(const char* name, HtmlAttributes attributes, const Html& content) {
    return {openingOf(name, attributes) + '>' + content.markup + "</" + name + ">"};
}

Html htmlElement(const char* name, const Html& content) {
    return htmlElement(name, {}, content);
}

Html htmlEmptyElement(const char* name, HtmlAttributes attributes) {
    return {openingOf(name, attributes) + "/>"};
}

}  // namespace upgradectl

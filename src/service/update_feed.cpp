#include "service/update_feed.hpp"

#include <expat.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <exception>
#include <memory>
#include <new>
#include <type_traits>

#include "common/text.hpp"

namespace skiff::service {

namespace {

// A prefixed name counts by its part after the colon.
std::string_view localName(std::string_view name, std::string_view qualifiedName) {
    const std::string_view used = qualifiedName.empty() ? name : qualifiedName;
    const auto colon = used.find(':');
    return colon == std::string_view::npos ? used : used.substr(colon + 1);
}

std::string trimmed(std::string_view text) {
    return std::string(trimmedWhitespace(text));
}

bool isItemFact(std::string_view local) {
    return local == "title" || local == "pubDate" || local == "version" ||
           local == "shortVersionString" || local == "minimumSystemVersion" ||
           local == "hardwareRequirements";
}

}  // namespace

std::optional<std::int64_t> wholeNumber(std::string_view text) {
    if (text.empty() ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

bool ItemParserDelegate::isTracked(std::string_view local) const {
    if (inItem_) {
        return isItemFact(local);
    }
    return inChannel_ && local == "title";
}

void ItemParserDelegate::takeEnclosure(const Attributes& attributes) {
    if (const auto url = attributes.find("url"); url != attributes.end()) {
        item_.enclosureURL = url->second;
    }
    if (const auto length = attributes.find("length"); length != attributes.end()) {
        if (const auto value = wholeNumber(length->second)) {
            item_.enclosureLength = value;
        }
    }
}

void ItemParserDelegate::store(std::string_view local, std::string text) {
    if (local == "title") {
        (inItem_ ? item_.itemTitle : item_.channelTitle) = std::move(text);
    } else if (local == "version") {
        item_.build = std::move(text);
    } else if (local == "shortVersionString") {
        item_.shortVersion = std::move(text);
    } else if (local == "pubDate") {
        item_.pubDate = std::move(text);
    } else if (local == "minimumSystemVersion") {
        item_.minimumSystemVersion = std::move(text);
    } else if (local == "hardwareRequirements") {
        item_.hardwareRequirements = std::move(text);
    }
}

void ItemParserDelegate::didStartElement(std::string_view name, std::string_view qualifiedName,
                                         const Attributes& attributes) {
    if (finishedFirstItem_) {
        return;
    }
    const auto local = localName(name, qualifiedName);
    if (local == "channel") {
        inChannel_ = true;
    } else if (local == "item") {
        if (inChannel_) {
            inItem_ = true;
        }
    } else if (local == "enclosure") {
        if (inItem_ && !item_.enclosureURL) {
            takeEnclosure(attributes);
        }
    } else if (isTracked(local)) {
        currentElement_ = std::string(local);
        currentText_.clear();
    }
}

void ItemParserDelegate::foundCharacters(std::string_view text) {
    if (!currentElement_ || currentText_.size() >= kMaxElementText) {
        return;
    }
    auto room = kMaxElementText - currentText_.size();
    if (text.size() > room) {
        // Cut before a UTF-8 continuation byte so the kept text stays valid, and fill the few
        // bytes left with spaces (trimmed at the end) so a later short piece is not glued on
        // after the gap.
        while (room > 0 && (static_cast<unsigned char>(text[room]) & 0xC0) == 0x80) {
            --room;
        }
        currentText_.append(text.substr(0, room));
        currentText_.resize(kMaxElementText, ' ');
        return;
    }
    currentText_.append(text);
}

void ItemParserDelegate::didEndElement(std::string_view name, std::string_view qualifiedName) {
    if (finishedFirstItem_) {
        return;
    }
    const auto local = localName(name, qualifiedName);
    if (currentElement_ && *currentElement_ == local) {
        store(local, trimmed(currentText_));
        currentElement_.reset();
        currentText_.clear();
    }
    if (local == "item") {
        inItem_ = false;
        finishedFirstItem_ = true;
    }
}

namespace {

// What the expat callbacks share. An exception must not cross expat's C frames, so a
// callback that fails stops the parser and leaves its reason here.
struct ParseRun {
    XML_Parser parser = nullptr;
    ItemParserDelegate delegate;
    std::optional<std::string> failure;
};

template <class Body>
void guarded(void* userData, Body&& body) {
    auto* run = static_cast<ParseRun*>(userData);
    if (run->failure) {
        return;
    }
    try {
        body(*run);
    } catch (const std::bad_alloc&) {
        run->failure = "out of memory";
        XML_StopParser(run->parser, XML_FALSE);
    } catch (const std::exception& e) {
        run->failure = e.what();
        XML_StopParser(run->parser, XML_FALSE);
    }
}

void XMLCALL onStart(void* userData, const XML_Char* name, const XML_Char** attributes) {
    guarded(userData, [&](ParseRun& run) {
        ItemParserDelegate::Attributes map;
        for (auto** a = attributes; a[0] != nullptr; a += 2) {
            map.emplace(a[0], a[1]);
        }
        // Without namespace processing expat hands over the name as written, prefix
        // included, and there is no separate qualified name.
        run.delegate.didStartElement(name, {}, map);
    });
}

void XMLCALL onEnd(void* userData, const XML_Char* name) {
    guarded(userData, [&](ParseRun& run) { run.delegate.didEndElement(name, {}); });
}

void XMLCALL onCharacters(void* userData, const XML_Char* text, int length) {
    guarded(userData, [&](ParseRun& run) {
        run.delegate.foundCharacters(std::string_view(text, static_cast<std::size_t>(length)));
    });
}

struct ParserFree {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

}  // namespace

std::variant<ItemParserDelegate, std::string> parseUpdateFeed(std::span<const std::uint8_t> feed) {
    std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree> parser(
        XML_ParserCreate(nullptr));
    if (!parser) {
        return std::string("out of memory");
    }
    ParseRun run;
    run.parser = parser.get();
    XML_SetUserData(parser.get(), &run);
    XML_SetElementHandler(parser.get(), onStart, onEnd);
    XML_SetCharacterDataHandler(parser.get(), onCharacters);
    // No external DTD or parameter entity is ever fetched; expat's own amplification
    // limit guards the internal entities.
    XML_SetParamEntityParsing(parser.get(), XML_PARAM_ENTITY_PARSING_NEVER);

    // One call for any real feed: expat 2.5 re-scans a token split across many small
    // pieces, so feeding in small chunks could turn quadratic.
    const char* data = reinterpret_cast<const char*>(feed.data());
    std::size_t left = feed.size();
    do {
        const auto piece = std::min<std::size_t>(left, INT_MAX);
        left -= piece;
        if (XML_Parse(parser.get(), data, static_cast<int>(piece),
                      left == 0 ? XML_TRUE : XML_FALSE) != XML_STATUS_OK) {
            if (run.failure) {
                return *run.failure;
            }
            return "line " + std::to_string(XML_GetCurrentLineNumber(parser.get())) + ", column " +
                   std::to_string(XML_GetCurrentColumnNumber(parser.get()) + 1) + ": " +
                   XML_ErrorString(XML_GetErrorCode(parser.get()));
        }
        data += piece;
    } while (left > 0);
    return std::move(run.delegate);
}

}  // namespace skiff::service

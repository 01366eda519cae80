#include "ctl/update_check.hpp"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>

#include "common/json.hpp"

namespace skiff::ctl {

namespace {

std::optional<Bytes> readFeed(const std::string& path) {
    if (path == "-") {
        return Bytes(std::istreambuf_iterator<char>(std::cin), {});
    }
    // A directory opens like a file and then reads as nothing, which would be reported as
    // an empty feed rather than as unreadable.
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
        return std::nullopt;
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

}  // namespace

std::variant<FeedRelease, std::string> firstRelease(std::span<const std::uint8_t> feed) {
    auto parsed = service::parseUpdateFeed(feed);
    if (auto* error = std::get_if<std::string>(&parsed)) {
        return "not a well-formed feed (" + *error + ")";
    }
    const auto& delegate = std::get<service::ItemParserDelegate>(parsed);
    if (!delegate.finishedFirstItem()) {
        return std::string("the feed announces no release (no item in its channel)");
    }
    const auto& facts = delegate.item();
    if (!facts.build) {
        return std::string("the feed's first item has no build number (no version element)");
    }
    const auto build = service::wholeNumber(*facts.build);
    if (!build) {
        return "the feed's first item has build \"" + *facts.build +
               "\", which is not a whole number";
    }
    return FeedRelease{facts, *build};
}

std::string describeUpdateCheck(const FeedRelease& release,
                                std::optional<std::int64_t> serviceBuild, const Output& out) {
    const bool available = serviceBuild && release.build > *serviceBuild;
    const char* verdict = !serviceBuild ? "unknown" : available ? "available" : "up to date";
    if (out.json) {
        auto document = json::toJson(release.facts);
        document["serviceBuild"] = serviceBuild ? json::Json(*serviceBuild) : json::Json();
        document["status"] = verdict;
        return document.dump(-1, ' ', false, json::Json::error_handler_t::replace) + "\n";
    }
    std::string text;
    auto line = [&](std::string_view key, const std::optional<std::string>& value) {
        if (value) {
            text.append(key).append(": ").append(*value).append("\n");
        }
    };
    const auto& f = release.facts;
    line("channel", f.channelTitle);
    line("title", f.itemTitle);
    line("version", f.shortVersion);
    line("build", f.build);
    line("published", f.pubDate);
    line("minimum system", f.minimumSystemVersion);
    line("hardware", f.hardwareRequirements);
    line("download", f.enclosureURL);
    if (f.enclosureLength) {
        line("size", std::to_string(*f.enclosureLength) + " bytes");
    }
    if (!serviceBuild) {
        return text + "could not compare: skiffd did not answer\n";
    }
    const std::string service = " (the service is build " + std::to_string(*serviceBuild) + ")";
    text += available ? "build " + std::to_string(release.build) + " available" + service
                      : "up to date" + service;
    return text + "\n";
}

int runUpdateCheck(const std::function<std::optional<std::int64_t>()>& serviceBuild,
                   const Output& out, const std::string& feedPath) {
    const std::string name = feedPath == "-" ? "standard input" : feedPath;
    const auto bytes = readFeed(feedPath);
    if (!bytes) {
        std::cerr << "skiffctl: cannot read " << name << std::endl;
        return kExitBadInput;
    }
    const auto release = firstRelease(*bytes);
    if (const auto* error = std::get_if<std::string>(&release)) {
        std::cerr << "skiffctl: " << name << ": " << *error << std::endl;
        return kExitBadInput;
    }
    std::cout << describeUpdateCheck(std::get<FeedRelease>(release), serviceBuild(), out)
              << std::flush;
    return kExitOk;
}

}  // namespace skiff::ctl

#include "ctl/item_commands.hpp"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <optional>

#include "common/json.hpp"
#include "ctl/output.hpp"
#include "ctl/relay_text.hpp"
#include "ctl/status_commands.hpp"
#include "relay/item_requests.hpp"
#include "relay/relay_schema.hpp"

namespace skiff::ctl {
namespace {

using relay::RelayDeviceStatus;
using relay::UsbMuxRelaySelector;
using Reply = service::dbus::HarborClient::RelayReply;

json::Json outcome(const Reply& reply) {
    return {{"status", reply.status}, {"detail", reply.code}};
}

// Sends one request; on a refusal prints it and gives the exit status.
std::optional<int> refused(CtlSession& session, const Reply& reply, const Output& out,
                           UsbMuxRelaySelector selector, const std::string& what) {
    if (reply.status == 0) {
        return std::nullopt;
    }
    const std::string words =
        relayFailureWords(reply.status, failureCode(session, reply), selector);
    if (out.json) {
        auto document = outcome(reply);
        document["error"] = words;
        printJson(document);
    }
    return fail(what + ": " + words);
}

template <class Request>
Reply send(CtlSession& session, UsbMuxRelaySelector selector, const Request& request) {
    auto body = json::encode(request);
    return session.client().relayToUsbMux(static_cast<std::int64_t>(selector),
                                          std::move(body).value_or(Bytes{}));
}

std::string listLine(const relay::RelayItemSummary& item, bool longFormat) {
    const std::string name = item.filename + (item.isDirectory ? "/" : "");
    if (!longFormat) {
        return name;
    }
    char size[32];
    std::snprintf(size, sizeof size, "%12llu", static_cast<unsigned long long>(item.size));
    return std::string(item.isDirectory ? "d" : "-") + " " + size + "  " +
           formatTime(item.modifyTime) + "  " + name;
}

// Summary-answering requests: mkdir and mv.
int runItemChange(CtlSession& session, const Output& out, UsbMuxRelaySelector selector,
                  const Reply& reply, const std::string& what) {
    if (const auto status = refused(session, reply, out, selector, what)) {
        return *status;
    }
    const auto summary = json::decode<relay::RelayItemSummary>(reply.response);
    if (!summary) {
        return fail(what +
                    ": the app's answer is not an item summary: " + printableBody(reply.response));
    }
    if (out.json) {
        auto document = outcome(reply);
        document["item"] = json::toJson(*summary);
        printJson(document);
    } else {
        std::cout << summary->identifier << (summary->isDirectory ? "/" : "") << std::endl;
    }
    return kExitOk;
}

}  // namespace

int runList(CtlSession& session, const Output& out, const std::string& identifier,
            bool longFormat) {
    const std::string what = "ls \"" + identifier + "\"";
    std::vector<relay::RelayItemSummary> items;
    relay::RelayListRequest request{identifier, std::nullopt};
    do {
        const auto reply = send(session, UsbMuxRelaySelector::listDirectory, request);
        if (const auto status =
                refused(session, reply, out, UsbMuxRelaySelector::listDirectory, what)) {
            return *status;
        }
        auto page = json::decode<relay::RelayListReply>(reply.response);
        if (!page) {
            return fail(what +
                        ": the app's answer is not a listing: " + printableBody(reply.response));
        }
        // A cursor that does not move would never end.
        if (page->nextCursor && page->nextCursor == request.cursor) {
            return fail(what + ": the app repeats its page");
        }
        std::move(page->items.begin(), page->items.end(), std::back_inserter(items));
        request.cursor = std::move(page->nextCursor);
    } while (request.cursor);

    if (out.json) {
        printJson({{"status", 0}, {"detail", 0}, {"items", json::toJson(items)}});
        return kExitOk;
    }
    // A name that could not be typed back (say "a/b" or "..") would only mislead.
    std::size_t leftOut = 0;
    for (const auto& item : items) {
        if (!relay::isItemName(item.filename)) {
            ++leftOut;
            continue;
        }
        std::cout << listLine(item, longFormat) << "\n";
    }
    std::cout << std::flush;
    if (leftOut != 0) {
        std::cerr << "skiffctl: " << what << ": left out " << leftOut
                  << (leftOut == 1 ? " entry whose name" : " entries whose names")
                  << " cannot be used here" << std::endl;
    }
    return kExitOk;
}

int runRemove(CtlSession& session, const Output& out, const std::string& identifier) {
    const auto reply =
        send(session, UsbMuxRelaySelector::removeItem, relay::RelayItemRequest{identifier});
    if (const auto status = refused(session, reply, out, UsbMuxRelaySelector::removeItem,
                                    "rm \"" + identifier + "\"")) {
        return *status;
    }
    if (out.json) {
        printJson(outcome(reply));
    }
    return kExitOk;
}

int runMakeDirectory(CtlSession& session, const Output& out, const std::string& identifier) {
    const auto reply =
        send(session, UsbMuxRelaySelector::makeDirectory, relay::RelayItemRequest{identifier});
    return runItemChange(session, out, UsbMuxRelaySelector::makeDirectory, reply,
                         "mkdir \"" + identifier + "\"");
}

int runRename(CtlSession& session, const Output& out, const std::string& from,
              const std::string& to) {
    const auto reply =
        send(session, UsbMuxRelaySelector::renameItem, relay::RelayRenameRequest{from, to});
    return runItemChange(session, out, UsbMuxRelaySelector::renameItem, reply,
                         "mv \"" + from + "\" \"" + to + "\"");
}

CLI::Validator identifierAsTyped() {
    return CLI::Validator(
        [](std::string& identifier) {
            // Slashes at either end and repeated ones are how people type paths, not names.
            std::string spelled;
            for (const char c : identifier) {
                if (c != '/' || (!spelled.empty() && spelled.back() != '/')) {
                    spelled.push_back(c);
                }
            }
            if (!spelled.empty() && spelled.back() == '/') {
                spelled.pop_back();
            }
            identifier = std::move(spelled);
            return std::string();
        },
        "", "identifier");
}

ItemCommands::ItemCommands(CLI::App& app) {
    list_ = app.add_subcommand("ls", "List a directory on the phone (every page)");
    list_->add_option("identifier", identifier_, "Path of the directory (default: the top)")
        ->transform(identifierAsTyped());
    list_->add_flag("-l", longFormat_, "Show kind, size and modification time");
    remove_ = app.add_subcommand("rm", "Remove a file or an empty directory on the phone");
    remove_->add_option("identifier", identifier_, "Path of the item")
        ->required()
        ->transform(identifierAsTyped());
    makeDirectory_ = app.add_subcommand("mkdir", "Make a directory on the phone");
    makeDirectory_->add_option("identifier", identifier_, "Path of the new directory")
        ->required()
        ->transform(identifierAsTyped());
    rename_ = app.add_subcommand("mv", "Rename an item on the phone, replacing a file at TO");
    rename_->add_option("from", identifier_, "Path of the item")
        ->required()
        ->transform(identifierAsTyped());
    rename_->add_option("to", newIdentifier_, "Its new path")
        ->required()
        ->transform(identifierAsTyped());
}

bool ItemCommands::parsed() const {
    return list_->parsed() || remove_->parsed() || makeDirectory_->parsed() || rename_->parsed();
}

int ItemCommands::run(CtlSession& session, const Output& out) const {
    if (list_->parsed()) {
        return runList(session, out, identifier_, longFormat_);
    }
    if (remove_->parsed()) {
        return runRemove(session, out, identifier_);
    }
    if (makeDirectory_->parsed()) {
        return runMakeDirectory(session, out, identifier_);
    }
    return runRename(session, out, identifier_, newIdentifier_);
}

}  // namespace skiff::ctl

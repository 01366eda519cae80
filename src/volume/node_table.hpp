#pragma once
// The volume's nodes: one per item the kernel or an open handle knows, named by a node id
// that is never reused. A node carries its item's identifier, which a rename changes for
// the node and every node below it, so open handles follow their file wherever it goes.
//
// A node lives while the kernel holds look-ups of it or a handle is open on it. An
// unlinked node (removed, or replaced by a rename) leaves the identifier index at once but
// lives on for its open handles; closed() tells the caller when the last one went, so it
// can drop the node's local bytes.
//
// Threads: any. The table's lock guards the index, identifiers, look-up and open counts;
// it is held only for map updates, never while anything waits for the phone. The rest of
// a node is guarded by the node's own locks (see Node).

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/bytes.hpp"
#include "common/unique_fd.hpp"
#include "relay/relay_schema.hpp"
#include "volume/range_set.hpp"

namespace skiff::volume {

using NodeId = std::uint64_t;
inline constexpr NodeId kRootNode = 1;

// What the volume holds of a file's bytes. Guarded by Node::mutex.
struct Content {
    UniqueFd fd;           // the local copy: a sparse file shared by every handle
    std::string copyName;  // its name in the volume folder; empty until first needed
    RangeSet present;      // bytes the copy holds at `version` or written here
    RangeSet dirty;        // bytes written here and not yet on the phone
    std::uint64_t size = 0;
    std::optional<Bytes> version;  // the phone's content version the copy's bytes are of
    bool onPhone = false;          // false for a file made here and not pushed yet
    bool changed = false;          // differs from the phone (size, new file or dirty bytes)
    int pushError = 0;             // the last push's failure, until the bytes are on the phone
    std::uint64_t changes = 0;     // counts writes and cuts, so a push sees those made meanwhile
    std::chrono::steady_clock::time_point lastChange{};
    std::chrono::steady_clock::time_point nextRetry{};
    std::chrono::seconds retryDelay{};
    std::chrono::steady_clock::time_point lastPush{};
    std::optional<Bytes> kernelCached;  // the version whose pages the kernel may keep
    std::uint32_t writers = 0;          // open handles that may write
    std::uint32_t unclosedWriters = 0;  // handles with writes since their last close
    std::uint64_t replacements = 0;     // times the phone's copy changed under this node
    // Times or mode set here while the bytes were not on the phone: they go with the push.
    bool timesPending = false;
    bool modePending = false;
    // A sequential writer's stream: the file was made or emptied here and written in order
    // since, and its full chunks before `streamed` are staged on the phone (as `stagedAs`)
    // ahead of the close, which sends only the rest. Any other write, a cut or a push ends
    // it; the push then stages anew, which starts the phone's write over.
    struct Stream {
        bool live = false;
        bool busy = false;  // a chunk is on its way
        std::uint64_t streamed = 0;
        std::string stagedAs;  // empty until staged
    } stream;
};

struct Node {
    Node(NodeId id, bool isDirectory) : id(id), isDirectory(isDirectory) {}
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    const NodeId id;
    const bool isDirectory;

    // Held while the node's bytes travel to or from the phone: one fetch or push at a time.
    // Taken before `mutex`, never the other way round.
    std::mutex io;
    // Short holds only: attributes and content.
    std::mutex mutex;
    relay::RelayItemSummary attributes;
    std::chrono::steady_clock::time_point fetched{};  // when `attributes` came from the phone
    Content content;

private:
    friend class NodeTable;
    std::string identifier_;
    std::uint64_t lookups_ = 0;
    std::uint32_t opens_ = 0;
    bool unlinked_ = false;
    bool pinned_ = false;
};

class NodeTable {
public:
    NodeTable();
    NodeTable(const NodeTable&) = delete;
    NodeTable& operator=(const NodeTable&) = delete;

    std::shared_ptr<Node> get(NodeId id) const;
    // The live node of an identifier, if any.
    std::shared_ptr<Node> find(const std::string& identifier) const;
    // The node of an identifier, made when missing (or when the item changed kind: the old
    // node is unlinked). `lookups` is added to its look-up count (the kernel's references).
    std::shared_ptr<Node> learn(const std::string& identifier, bool isDirectory,
                                std::uint64_t lookups);
    // The kernel dropped `count` look-ups.
    void forget(NodeId id, std::uint64_t count);
    void opened(Node& node);
    // True when this was the last handle of an unlinked node: its bytes may go.
    bool closed(Node& node);
    // A pinned node stays while the kernel and every handle forgot it: it holds bytes
    // that are not on the phone yet, and a look-up must find them.
    void pin(Node& node, bool pinned);

    std::string identifierOf(const Node& node) const;
    bool unlinked(const Node& node) const;
    std::uint32_t opens(const Node& node) const;

    // The item is gone from the phone: its node (if any) leaves the index.
    void unlink(const std::string& identifier);
    // The item and everything below it now live at `to`; a node at `to` is unlinked.
    void rename(const std::string& from, const std::string& to);
    // Live nodes directly inside the directory.
    std::vector<std::shared_ptr<Node>> children(const std::string& directory) const;
    // Live nodes (the root included).
    std::size_t size() const;

private:
    void dropIfUnused(const std::shared_ptr<Node>& node);

    mutable std::mutex mutex_;
    NodeId next_ = kRootNode;
    std::map<NodeId, std::shared_ptr<Node>> byId_;
    std::map<std::string, std::shared_ptr<Node>> byIdentifier_;
};

// The identifier of `name` inside the directory `parent` ("" is the root).
std::string childOf(const std::string& parent, const std::string& name);
// The directory holding an identifier ("a/b" is in "a", "a" in "").
std::string parentOf(const std::string& identifier);
// The last component of an identifier.
std::string nameOf(const std::string& identifier);

}  // namespace skiff::volume

#pragma once
// The local copies nobody holds open, least recently closed first, and the disk they take:
// past the bound the oldest go, so that reading a large tree does not fill the disk. The
// caller evicts what over() hands back only if it still may (not open, no changes of the
// user's); a copy with changes is never handed in.
//
// Threads: any; one lock inside, held for list updates only and never while the caller
// works on a node.

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace skiff::volume {

struct Node;

class CopyBudget {
public:
    // `bound` answers how many bytes the idle copies may take now (it may follow free space).
    explicit CopyBudget(std::function<std::uint64_t()> bound) : bound_(std::move(bound)) {}
    CopyBudget(const CopyBudget&) = delete;
    CopyBudget& operator=(const CopyBudget&) = delete;

    struct Idle {
        std::weak_ptr<Node> node;
        std::string copyName;
        std::uint64_t bytes = 0;
        const Node* key = nullptr;  // the node's address when listed, which outlives it
    };
    // The node's copy was closed by its last handle and takes `bytes` on disk.
    void idle(const std::shared_ptr<Node>& node, std::string copyName, std::uint64_t bytes);
    // The node's copy is open again or gone: it no longer counts.
    void busy(const Node& node);
    // Takes the oldest copies off the list until the rest fit the bound; oldest first.
    std::vector<Idle> over();

private:
    std::function<std::uint64_t()> bound_;
    std::mutex mutex_;  // guards the members below
    std::list<Idle> idle_;
    // Where each node's entry is; a node whose object died keeps its entry until over().
    std::unordered_map<const Node*, std::list<Idle>::iterator> where_;
    std::uint64_t bytes_ = 0;
};

}  // namespace skiff::volume

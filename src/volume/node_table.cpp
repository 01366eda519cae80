#include "volume/node_table.hpp"

namespace skiff::volume {

namespace {

bool isWithin(const std::string& identifier, const std::string& directory) {
    return identifier.size() > directory.size() + 1 && identifier.starts_with(directory) &&
           identifier[directory.size()] == '/';
}

}  // namespace

std::string childOf(const std::string& parent, const std::string& name) {
    return parent.empty() ? name : parent + "/" + name;
}

std::string parentOf(const std::string& identifier) {
    const auto slash = identifier.rfind('/');
    return slash == std::string::npos ? std::string() : identifier.substr(0, slash);
}

std::string nameOf(const std::string& identifier) {
    const auto slash = identifier.rfind('/');
    return slash == std::string::npos ? identifier : identifier.substr(slash + 1);
}

NodeTable::NodeTable() {
    auto root = std::make_shared<Node>(next_++, true);
    root->lookups_ = 1;  // the kernel never forgets the root
    byId_.emplace(root->id, root);
    byIdentifier_.emplace("", std::move(root));
}

std::shared_ptr<Node> NodeTable::get(NodeId id) const {
    std::lock_guard guard(mutex_);
    const auto it = byId_.find(id);
    return it == byId_.end() ? nullptr : it->second;
}

std::shared_ptr<Node> NodeTable::find(const std::string& identifier) const {
    std::lock_guard guard(mutex_);
    const auto it = byIdentifier_.find(identifier);
    return it == byIdentifier_.end() ? nullptr : it->second;
}

std::shared_ptr<Node> NodeTable::learn(const std::string& identifier, bool isDirectory,
                                       std::uint64_t lookups) {
    std::lock_guard guard(mutex_);
    auto& slot = byIdentifier_[identifier];
    if (slot && slot->isDirectory != isDirectory && !identifier.empty()) {
        slot->unlinked_ = true;
        auto old = std::move(slot);
        dropIfUnused(old);
    }
    if (!slot) {
        slot = std::make_shared<Node>(next_++, isDirectory);
        slot->identifier_ = identifier;
        byId_.emplace(slot->id, slot);
    }
    slot->lookups_ += lookups;
    return slot;
}

void NodeTable::forget(NodeId id, std::uint64_t count) {
    std::lock_guard guard(mutex_);
    const auto it = byId_.find(id);
    if (it == byId_.end() || id == kRootNode) {
        return;
    }
    auto node = it->second;
    node->lookups_ -= std::min(count, node->lookups_);
    dropIfUnused(node);
}

void NodeTable::opened(Node& node) {
    std::lock_guard guard(mutex_);
    ++node.opens_;
}

bool NodeTable::closed(Node& node) {
    std::lock_guard guard(mutex_);
    if (node.opens_ > 0) {
        --node.opens_;
    }
    if (const auto it = byId_.find(node.id); it != byId_.end()) {
        dropIfUnused(it->second);
    }
    return node.opens_ == 0 && node.unlinked_;
}

void NodeTable::pin(Node& node, bool pinned) {
    std::lock_guard guard(mutex_);
    node.pinned_ = pinned;
    if (const auto it = byId_.find(node.id); it != byId_.end()) {
        dropIfUnused(it->second);
    }
}

std::string NodeTable::identifierOf(const Node& node) const {
    std::lock_guard guard(mutex_);
    return node.identifier_;
}

bool NodeTable::unlinked(const Node& node) const {
    std::lock_guard guard(mutex_);
    return node.unlinked_;
}

std::uint32_t NodeTable::opens(const Node& node) const {
    std::lock_guard guard(mutex_);
    return node.opens_;
}

void NodeTable::unlink(const std::string& identifier) {
    std::lock_guard guard(mutex_);
    const auto it = byIdentifier_.find(identifier);
    if (it == byIdentifier_.end() || identifier.empty()) {
        return;
    }
    auto node = std::move(it->second);
    byIdentifier_.erase(it);
    node->unlinked_ = true;
    dropIfUnused(node);
}

void NodeTable::rename(const std::string& from, const std::string& to) {
    std::lock_guard guard(mutex_);
    if (from == to || from.empty()) {
        return;
    }
    if (const auto target = byIdentifier_.find(to); target != byIdentifier_.end()) {
        auto node = std::move(target->second);
        byIdentifier_.erase(target);
        node->unlinked_ = true;
        dropIfUnused(node);
    }
    std::vector<std::shared_ptr<Node>> moved;
    for (auto it = byIdentifier_.lower_bound(from); it != byIdentifier_.end();) {
        if (it->first != from && !isWithin(it->first, from)) {
            // Sorted order puts "a/b" before "a-c" and "a0" after "a/": stop past the subtree.
            if (it->first.compare(0, from.size(), from) != 0) {
                break;
            }
            ++it;
            continue;
        }
        moved.push_back(std::move(it->second));
        it = byIdentifier_.erase(it);
    }
    for (auto& node : moved) {
        node->identifier_ = to + node->identifier_.substr(from.size());
        byIdentifier_[node->identifier_] = std::move(node);
    }
}

std::vector<std::shared_ptr<Node>> NodeTable::children(const std::string& directory) const {
    std::lock_guard guard(mutex_);
    std::vector<std::shared_ptr<Node>> found;
    const std::string prefix = directory.empty() ? std::string() : directory + "/";
    for (auto it = byIdentifier_.lower_bound(prefix);
         it != byIdentifier_.end() && it->first.starts_with(prefix); ++it) {
        if (!it->first.empty() && it->first.find('/', prefix.size()) == std::string::npos) {
            found.push_back(it->second);
        }
    }
    return found;
}

std::size_t NodeTable::size() const {
    std::lock_guard guard(mutex_);
    return byId_.size();
}

void NodeTable::dropIfUnused(const std::shared_ptr<Node>& entry) {
    // A copy: the reference may be the table's own entry, which the erase below destroys.
    const std::shared_ptr<Node> node = entry;
    if (node->lookups_ > 0 || node->opens_ > 0 || (node->pinned_ && !node->unlinked_) ||
        node->id == kRootNode) {
        return;
    }
    byId_.erase(node->id);
    if (const auto it = byIdentifier_.find(node->identifier_);
        it != byIdentifier_.end() && it->second == node) {
        byIdentifier_.erase(it);
    }
}

}  // namespace skiff::volume

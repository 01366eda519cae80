#include "volume/copy_budget.hpp"

#include <utility>

namespace skiff::volume {

void CopyBudget::idle(const std::shared_ptr<Node>& node, std::string copyName,
                      std::uint64_t bytes) {
    busy(*node);
    std::lock_guard guard(mutex_);
    idle_.push_back(Idle{node, std::move(copyName), bytes, node.get()});
    where_[node.get()] = std::prev(idle_.end());
    bytes_ += bytes;
}

void CopyBudget::busy(const Node& node) {
    std::lock_guard guard(mutex_);
    const auto found = where_.find(&node);
    // A dead node's address may be taken by a new one: only the live owner's entry goes.
    if (found == where_.end() || found->second->node.lock().get() != &node) {
        return;
    }
    bytes_ -= found->second->bytes;
    idle_.erase(found->second);
    where_.erase(found);
}

std::vector<CopyBudget::Idle> CopyBudget::over() {
    const auto bound = bound_();
    std::vector<Idle> evicted;
    std::lock_guard guard(mutex_);
    while (bytes_ > bound && !idle_.empty()) {
        auto& oldest = idle_.front();
        const auto found = where_.find(oldest.key);
        if (found != where_.end() && found->second == idle_.begin()) {
            where_.erase(found);
        }
        bytes_ -= oldest.bytes;
        evicted.push_back(std::move(oldest));
        idle_.pop_front();
    }
    return evicted;
}

}  // namespace skiff::volume

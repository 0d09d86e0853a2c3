// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The callbacks told of a publisher's changes. Each stays until the handle `add` returned is
// destroyed; a handle may outlive the list. Main thread only, like the publishers that hold one.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

namespace trelvane {

template <typename Change> class Observers {
  public:
    using Observer = std::function<void(Change)>;

    [[nodiscard]] std::shared_ptr<void> add(Observer observer) {
        const auto id = list_->nextId++;
        list_->entries.emplace(id, std::move(observer));
        std::weak_ptr<List> weak = list_;
        return std::shared_ptr<void>(nullptr, [weak, id](void*) {
            if (auto list = weak.lock()) list->entries.erase(id);
        });
    }

    void notify(Change what) const {
        // Copy first: an observer may add or drop observers while being told.
        const auto entries = list_->entries;
        for (const auto& [id, fn] : entries)
            if (list_->entries.contains(id)) fn(what);
    }

  private:
    struct List {
        std::map<std::uint64_t, Observer> entries;
        std::uint64_t nextId = 0;
    };
    std::shared_ptr<List> list_ = std::make_shared<List>();
};

} // namespace trelvane

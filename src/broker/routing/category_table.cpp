// The table of categories; see category_table.h.
#include "broker/routing/category_table.h"

#include <algorithm>

namespace kavri::broker {

Category* CategoryTable::find(std::string_view name) const {
    const auto found = categories_.find(name);
    return found == categories_.end() ? nullptr : found->second.get();
}

Category& CategoryTable::at(std::string_view name) {
    if (Category* known = find(name)) {
        return *known;
    }
    auto category = std::make_unique<Category>();
    category->name = name;
    category->policy = &policy_.at(name);
    const std::string_view key = category->name;
    return *categories_.emplace(key, std::move(category)).first->second;
}

void CategoryTable::removeIfUnused(Category& category) {
    if (category.isServed() || !category.subscribers.empty()) {
        return;
    }
    categories_.erase(categories_.find(category.name));
    if (categories_.bucket_count() / 8 > std::max<std::size_t>(categories_.size(), 8)) {
        categories_.rehash(0);  // returns the memory of many that came and went
    }
}

void CategoryTable::policyChanged() {
    for (const auto& [name, category] : categories_) {
        category->policy = &policy_.at(name);
    }
}

}  // namespace kavri::broker

// The categories that are served or subscribed to, by their names.
#ifndef KAVRI_BROKER_ROUTING_CATEGORY_TABLE_H
#define KAVRI_BROKER_ROUTING_CATEGORY_TABLE_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "broker/memory/account.h"
#include "broker/routing/local_service.h"
#include "broker/session/policy.h"

namespace kavri::broker {

struct Session;

// What a subscription or a registration is charged: the name, and what goes with it in the
// tables.
constexpr std::size_t chargedFor(std::string_view category) {
    return 256 + category.size();
}

struct Category {
    std::string name;
    const CategoryPolicy* policy = nullptr;
    Session* responder = nullptr;
    Charge responderCharge;         // for the name
    LocalService* local = nullptr;  // in a responder's place
    std::vector<Session*> subscribers;

    bool isServed() const { return responder != nullptr || local != nullptr; }
};

class CategoryTable {
  public:
    explicit CategoryTable(const Policy& policy) : policy_(policy) {}

    // Null where nobody serves it and nobody is subscribed to it.
    Category* find(std::string_view name) const;
    // Makes it where there is none.
    Category& at(std::string_view name);
    // To be called when it may have lost its last responder or subscriber.
    void removeIfUnused(Category& category);

    // `visit` must neither make nor remove categories.
    template <typename Visit>
    void forEach(const Visit& visit) const {
        for (const auto& [name, category] : categories_) {
            visit(*category);
        }
    }

    // The policy has other contents than before.
    void policyChanged();

  private:
    const Policy& policy_;
    std::unordered_map<std::string_view, std::unique_ptr<Category>> categories_;
};

}  // namespace kavri::broker

#endif

// The plug-in context's service registry on its own, without a context or its pool thread: the
// open-addressing table of names to pointers, checked against std::unordered_map.
#include "plugin_service_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace mosk::kelvo::internal {
namespace {

void* pointer(uintptr_t value) { return reinterpret_cast<void*>(value); }

void* found(ServiceTable& table, const std::string& name) {
  void** service = table.find(name);
  return service == nullptr ? nullptr : *service;
}

std::vector<std::string> sortedNames(const ServiceTable& table) {
  std::vector<std::string> names = table.names();
  std::sort(names.begin(), names.end());
  return names;
}

TEST(ServiceTableTest, AnEmptyTableFindsNothing) {
  ServiceTable table;
  EXPECT_EQ(table.find("anything"), nullptr);
  EXPECT_EQ(table.find(""), nullptr);
  EXPECT_TRUE(table.names().empty());
  table.erase("anything");  // nothing to erase: no effect
  EXPECT_TRUE(table.names().empty());
}

TEST(ServiceTableTest, TheFirstRegistrationOfANameWins) {
  ServiceTable table;
  table.insert("clock", pointer(1));
  table.insert("clock", pointer(2));
  EXPECT_EQ(found(table, "clock"), pointer(1));
  EXPECT_EQ(table.names(), std::vector<std::string>{"clock"});
}

TEST(ServiceTableTest, AnErasedNameCanBeRegisteredAgain) {
  ServiceTable table;
  table.insert("clock", pointer(1));
  table.erase("clock");
  EXPECT_EQ(table.find("clock"), nullptr);
  EXPECT_TRUE(table.names().empty());
  table.insert("clock", pointer(2));
  EXPECT_EQ(found(table, "clock"), pointer(2));
}

TEST(ServiceTableTest, ANullServiceIsRegisteredLikeAnyOther) {
  ServiceTable table;
  table.insert("none", nullptr);
  ASSERT_NE(table.find("none"), nullptr);
  EXPECT_EQ(found(table, "none"), nullptr);
  table.insert("none", pointer(3));  // taken already: the null pointer stays
  EXPECT_EQ(found(table, "none"), nullptr);
}

// Every length runs through another branch of the hash: empty, 1 to 3, 4 to 7, exact words and
// words with a tail. Names that differ only in their last byte stay apart.
TEST(ServiceTableTest, NamesOfEveryLengthAndTheirNeighboursStayApart) {
  ServiceTable table;
  std::vector<std::string> names;
  for (size_t length = 0; length <= 40; ++length) {
    std::string name(length, 's');
    names.push_back(name);
    if (length > 0) {
      name.back() = 't';
      names.push_back(name);
    }
  }
  for (size_t i = 0; i < names.size(); ++i) table.insert(std::string(names[i]), pointer(i + 1));
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(found(table, names[i]), pointer(i + 1)) << "'" << names[i] << "'";
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(sortedNames(table), names);
}

TEST(ServiceTableTest, GrowingKeepsEveryName) {
  ServiceTable table;
  std::vector<std::string> names;
  for (int i = 0; i < 5000; ++i) {
    names.push_back("service." + std::to_string(i));
    table.insert(std::string(names.back()), pointer(static_cast<uintptr_t>(i) + 1));
  }
  for (int i = 0; i < 5000; ++i) {
    ASSERT_EQ(found(table, names[i]), pointer(static_cast<uintptr_t>(i) + 1)) << names[i];
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(sortedNames(table), names);
}

// Registrations and removals in random order, many of them on few names, so that removed slots
// pile up and the table rehashes often: it must always answer as a std::unordered_map does.
TEST(ServiceTableTest, ChurnAnswersLikeAStandardMap) {
  ServiceTable table;
  std::unordered_map<std::string, void*> model;
  std::mt19937 random(17);
  std::uniform_int_distribution<int> nameOf(0, 199);
  std::uniform_int_distribution<int> operation(0, 2);
  for (uintptr_t step = 1; step <= 50000; ++step) {
    const std::string name = "n" + std::to_string(nameOf(random));
    switch (operation(random)) {
      case 0:
        table.insert(std::string(name), pointer(step));
        model.emplace(name, pointer(step));  // like the table: the first registration wins
        break;
      case 1:
        table.erase(name);
        model.erase(name);
        break;
      default: {
        const auto expected = model.find(name);
        void** service = table.find(name);
        ASSERT_EQ(service != nullptr, expected != model.end()) << name << " at step " << step;
        if (service != nullptr) {
          ASSERT_EQ(*service, expected->second);
        }
      }
    }
  }
  std::vector<std::string> names;
  for (const auto& entry : model) names.push_back(entry.first);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(sortedNames(table), names);
}

}  // namespace
}  // namespace mosk::kelvo::internal

// Which processes a launch led to, from a table of parents.
#include "platform/process_family.h"

#include <gtest/gtest.h>

namespace glimmerstrand::platform {
namespace {

TEST(ProcessFamily, ALaunchLeadsToItsDescendantsAndToTheOrphansItLeft) {
  // 100 is this process; 200 a launcher; 300 another application started
  // earlier; 400 a process that the launcher left to 100 when it ended.
  const std::map<pid_t, pid_t> parents{{200, 100}, {201, 200}, {202, 201}, {300, 100},
                                       {301, 300}, {400, 100}, {401, 400}, {500, 1}};
  struct Case {
    const char* name;
    pid_t root, self;
    std::set<pid_t> known, expected;
  };
  const Case cases[] = {
      {"descendants only", 200, 0, {}, {200, 201, 202}},
      {"orphans of this process, not what it knew", 200, 100, {200, 300}, {200, 201, 202, 400, 401}},
      {"a launcher that has ended", 250, 100, {200, 300, 400}, {250}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(processFamily(c.root, parents, c.self, c.known), c.expected);
  }
}

TEST(ProcessFamily, ThisProcessIsAmongTheRunningOnes) {
  const auto parents = processParents();
  ASSERT_TRUE(parents.count(::getpid()));
  EXPECT_EQ(parents.at(::getpid()), ::getppid());
}

}  // namespace
}  // namespace glimmerstrand::platform

#include "BriefFailures.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  zk::test::failBriefly();
  return RUN_ALL_TESTS();
}

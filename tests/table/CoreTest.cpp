#include "TableCore.h"

namespace TestSupport {

INSTANTIATE_TYPED_TEST_SUITE_P(Catalogue, TableCore, AllTableTypes, TableTestName);

}  // namespace TestSupport

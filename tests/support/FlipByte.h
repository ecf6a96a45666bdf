#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "BrioSharedMem/EntityPath.h"
#include "Lumen/String.h"

namespace TestSupport {

// The file of an entity in a store of TableFixture below `root`.
inline std::string entityFile(const std::string& root, const Lumen::String& path) {
  return root + "/kelp-test/" + BrioSharedMem::encodedPath(path) + ".quilt";
}

// Changes the byte behind `at`, a place in the mapping of `map`, as another program would: through
// the file.
template <class Map>
void flipByte(const std::string& root, const Map& map, const void* at) {
  const std::string file = entityFile(root, map.path());
  const auto offset = static_cast<off_t>(static_cast<const char*>(at) -
                                         static_cast<const char*>(map.file()->at(0)));
  const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0) << file;
  unsigned char byte = 0;
  ASSERT_EQ(pread(fd, &byte, 1, offset), 1);
  byte = static_cast<unsigned char>(~byte);
  ASSERT_EQ(pwrite(fd, &byte, 1, offset), 1);
  close(fd);
}

}  // namespace TestSupport

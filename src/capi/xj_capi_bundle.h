// The handle behind xj_prior_*: a bundle's prior video played row by row,
// without an engine handle.
#pragma once
#include <memory>
#include <string>

#include "bundle/xj_bundle.h"
#include "driver/xj_driver.h"
#include "xj/xj.h"

struct xj_prior {
  xj::Manifest manifest;
  std::unique_ptr<xj::DriverCursor> cursor;
  std::string backend;  // the decoder's description, copied from the cursor
};

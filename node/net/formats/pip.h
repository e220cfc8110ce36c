// Program initialization parameters (PIP): the GDS variable that follows an
// Attach whose PIP indicator is set, one subfield GDS variable per parameter.
#pragma once

#include <vector>

#include "net/formats/byte_io.h"
#include "net/formats/result.h"

namespace snanode::net {

void append_pip(const std::vector<Bytes> &parameters, Bytes &out);
// Refuses a variable that is not a PIP, or subfields that do not fill it
// exactly, with X'10086032' (PIP not specified correctly).
Result<std::vector<Bytes>> read_pip(ByteReader &in);

}  // namespace snanode::net

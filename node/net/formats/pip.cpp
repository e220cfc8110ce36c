#include "net/formats/pip.h"

#include "net/formats/gds.h"
#include "net/formats/sense_codes.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net {

void append_pip(const std::vector<Bytes> &parameters, Bytes &out) {
  Bytes subfields;
  for (const Bytes &parameter : parameters) {
    append_gds(decision::kGdsIdPipSubfield, parameter, subfields);
  }
  append_gds(decision::kGdsIdPipVariable, subfields, out);
}

Result<std::vector<Bytes>> read_pip(ByteReader &in) {
  using R = Result<std::vector<Bytes>>;
  Result<Record> pip = read_gds(in);
  if (!pip || pip->id != decision::kGdsIdPipVariable) {
    return R::refused(sense::kPipNotSpecifiedCorrectly);
  }
  std::vector<Bytes> parameters;
  ByteReader subfields(pip->data);
  while (!subfields.at_end()) {
    Result<Record> parameter = read_gds(subfields);
    if (!parameter || parameter->id != decision::kGdsIdPipSubfield) {
      return R::refused(sense::kPipNotSpecifiedCorrectly);
    }
    parameters.push_back(std::move(parameter->data));
  }
  return parameters;
}

}  // namespace snanode::net

#include "rtp/accessunit.h"

#include <algorithm>
#include <numeric>
#include <string>
#include <utility>

#include "rtp/nalunits.h"

namespace kavo::impl {

namespace {

// In bytes. More would not fit in the SDP; real ones take a few hundred.
constexpr std::size_t mostParameterSets = 4096;

enum class Role { Other, Slice, FirstSlice, KeySlice, FirstKeySlice, Delimiter, ParameterSet };

struct Meaning {
  Role role = Role::Other;
  std::size_t kind = 0;      // of a parameter set
  std::size_t smallest = 2;  // bytes
};

// first is the first bit of the slice header, which is set in the first slice of a picture.
Role sliceRole(bool key, bool first) {
  return key ? first ? Role::FirstKeySlice : Role::KeySlice : first ? Role::FirstSlice : Role::Slice;
}

Meaning h264Meaning(NalUnit nalUnit) {
  auto const type = static_cast<int>(typeOf(nalUnit));
  if (type == 0 || type > 23) {  // RTP uses these for its own packets
    throw UnusableFrame("a NAL unit of type " + std::to_string(type) + ", which H.264 does not have");
  }
  constexpr int slice = 1;
  constexpr int delimiter = 9;
  switch (type) {
    case slice:
    case static_cast<int>(NalUnitType::Idr):
      return {sliceRole(type != slice, nalUnit.size() > 1 && (nalUnit[1] & 0x80) != 0)};
    case static_cast<int>(NalUnitType::Sps):
      return {Role::ParameterSet, 1, 5};
    case static_cast<int>(NalUnitType::Pps):
      return {Role::ParameterSet, 2, 2};
    case delimiter:
      return {Role::Delimiter};
    default:
      return {Role::Other, 0, 1};
  }
}

Meaning h265Meaning(NalUnit nalUnit) {
  auto const type = h265TypeOf(nalUnit);
  constexpr int lastSlice = 31;
  constexpr int delimiter = 35;
  constexpr int lastOfH265 = 47;
  if (static_cast<int>(type) > lastOfH265) {
    throw UnusableFrame("a NAL unit of type " + std::to_string(static_cast<int>(type)) + ", which H.265 does not have");
  }
  if (nalUnit.size() < 2 || (nalUnit[1] & 7) == 0) {
    throw UnusableFrame("a NAL unit without a temporal layer");
  }
  switch (type) {
    case H265NalUnitType::Vps:
      return {Role::ParameterSet, 0, 18};
    case H265NalUnitType::Sps:
      return {Role::ParameterSet, 1, 15};
    case H265NalUnitType::Pps:
      return {Role::ParameterSet, 2, 3};
    default:
      break;
  }
  if (static_cast<int>(type) <= lastSlice) {
    return {sliceRole(isIrap(type), nalUnit.size() > 2 && (nalUnit[2] & 0x80) != 0), 0, 3};
  }
  return {static_cast<int>(type) == delimiter ? Role::Delimiter : Role::Other};
}

bool beginsWithStartCode(std::span<std::uint8_t const> bytes) {
  auto const zeros = std::ranges::find_if(bytes, [](std::uint8_t byte) { return byte != 0; }) - bytes.begin();
  return zeros >= 2 && zeros < static_cast<std::ptrdiff_t>(bytes.size()) && bytes[static_cast<std::size_t>(zeros)] == 1;
}

void append(std::vector<std::uint8_t>& sets, NalUnit nalUnit) {
  static constexpr std::uint8_t startCode[] = {0, 0, 0, 1};
  sets.insert(sets.end(), std::begin(startCode), std::end(startCode));
  sets.insert(sets.end(), nalUnit.begin(), nalUnit.end());
}

std::size_t totalSize(auto const& kinds) {
  return std::accumulate(kinds.begin(), kinds.end(), std::size_t{0},
                         [](std::size_t sum, auto const& sets) { return sum + sets.size(); });
}

}  // namespace

AccessUnit ParameterSets::parse(std::span<std::uint8_t const> bytes, Kinds& kinds) const {
  if (!beginsWithStartCode(bytes)) {
    throw UnusableFrame("it does not begin with a start code (00 00 01)");
  }
  AccessUnit unit;
  int begun = 0;
  auto rest = bytes;
  for (NalUnit nalUnit = takeNalUnit(rest); !nalUnit.empty(); nalUnit = takeNalUnit(rest)) {
    if ((nalUnit[0] & 0x80) != 0) {
      throw UnusableFrame("a NAL unit whose forbidden bit is set");
    }
    auto const [role, kind, smallest] = m_Codec == NalCodec::H264 ? h264Meaning(nalUnit) : h265Meaning(nalUnit);
    if (nalUnit.size() < smallest) {
      throw UnusableFrame("a NAL unit of " + std::to_string(nalUnit.size()) + " bytes, which cannot be read");
    }
    bool const isKey = role == Role::KeySlice || role == Role::FirstKeySlice;
    bool const isFirst = role == Role::FirstSlice || role == Role::FirstKeySlice;
    begun += isFirst ? 1 : 0;
    unit.slices += isKey || isFirst || role == Role::Slice ? 1 : 0;
    if (unit.slices == 1 && begun == 0) {
      throw UnusableFrame("it begins in the middle of a picture");
    }
    unit.isKeyFrame = unit.isKeyFrame || isKey;
    if (role == Role::ParameterSet) {
      append(kinds[kind], nalUnit);
    } else if (role == Role::Delimiter && unit.slices == 0 && totalSize(kinds) == 0) {
      unit.delimiter = static_cast<std::size_t>(nalUnit.data() + nalUnit.size() - bytes.data());
    }
  }
  if (begun > 1) {
    throw UnusableFrame("more than one access unit");
  }
  if (totalSize(kinds) > mostParameterSets) {
    throw UnusableFrame("parameter sets of more than " + std::to_string(mostParameterSets) + " bytes");
  }
  unit.hasParameterSets = areComplete(kinds, m_Codec);
  return unit;
}

void ParameterSets::read(std::span<std::uint8_t const> bytes) {
  Kinds found;
  auto const unit = parse(bytes, found);
  if (unit.slices > 0 || !unit.hasParameterSets) {
    throw UnusableFrame("parameter sets are missing, or something else is among them");
  }
  replace(m_Known, found);
}

AccessUnit ParameterSets::learn(std::span<std::uint8_t const> bytes) {
  Kinds found;
  auto const unit = parse(bytes, found);
  if (unit.slices == 0) {
    throw UnusableFrame("there is no slice of a picture in it");
  }
  replace(m_Known, found);
  return unit;
}

void ParameterSets::replace(Kinds& known, Kinds& found) {
  for (std::size_t kind = 0; kind < known.size(); ++kind) {
    if (!found[kind].empty()) {
      known[kind].swap(found[kind]);
    }
  }
}

bool ParameterSets::areComplete(Kinds const& kinds, NalCodec codec) {
  return (codec == NalCodec::H264 || !kinds[0].empty()) && !kinds[1].empty() && !kinds[2].empty();
}

bool ParameterSets::areComplete() const { return areComplete(m_Known, m_Codec); }

std::vector<std::uint8_t> ParameterSets::bytes() const {
  std::vector<std::uint8_t> all;
  for (auto const& sets : m_Known) {
    all.insert(all.end(), sets.begin(), sets.end());
  }
  return all;
}

}  // namespace kavo::impl

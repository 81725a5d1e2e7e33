#include "tools/files/builtin_tuning.h"

namespace sorn_tool {

const char *builtin_tuning_json() {
    return R"({
  "description": "sorn-hp built-in example: low-shelf lift, headphone correction, ear resonance",
  "lc": {
    "enabled": true,
    "points": [
      [30, 4], [60, 4], [100, 3], [150, 2],
      [250, 1], [400, 0], [700, 0], [1200, 0],
      [2500, 0], [5000, 0], [10000, 0], [16000, 0]
    ]
  },
  "hp": {
    "enabled": true,
    "points": [
      [50, 0], [200, 0], [500, -1], [1000, 0],
      [2000, 1], [3000, 2], [4000, 1], [6000, -2],
      [8000, 0], [10000, 1], [12000, 2], [16000, 1]
    ]
  },
  "ea": {
    "enabled": true,
    "points": [
      [1000, 0], [2000, 1], [3500, 2], [5000, 1],
      [7000, 0], [9000, -1], [12000, 0], [15000, 0]
    ]
  },
  "surround": true
}
)";
}

}  // namespace sorn_tool

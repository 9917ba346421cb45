#include "Scenario.h"

namespace pelyx_sim {

// The built-in run, also printed by --print-default as a starting point for scenario files.
// A 60 Hz game, full screen and focused, drawing ahead on three buffers, with a heavy frame
// (50 ms of CPU work, 30 of GPU) every 2 s from 4.5 s on and a drag every second; a chat app in a window at
// 30 fps. The service pushes headroom rates early, frame-rescue tunables at 3 s, a 45 fps target
// at 5 s and two activity events; the big-jank threshold is raised at 7 s. The figures are also
// given for three phases: the start (the library sees its first frames and touch), quick touch
// and the 45 fps target.
const char* const kDefaultScenarioJson = R"json({
  "name": "default",
  "description": "60 Hz game with heavy frames and touch, a windowed chat app, configuration pushes",
  "duration_s": 10,
  "seed": 1,
  "display": { "width": 1080, "height": 2400, "refresh_hz": 60 },
  "gpu": { "base_mhz": 250, "max_mhz": 1000, "ramp_ms": 2, "withdraw_ms": 16 },
  "cpu": { "boost_factor": 1.5, "boost_ms": 100, "low_latency_factor": 1.2, "ramp_ms": 5 },
  "compositor": { "present_delay_vsyncs": 1 },
  "phases": [
    { "name": "start", "from_s": 0 },
    { "name": "quick touch", "from_s": 2 },
    { "name": "45 fps target", "from_s": 5 }
  ],
  "properties": {
    "vendor.perf.phr.enable": "1",
    "vendor.ruvo.enable.target_fps": "true",
    "vendor.perf.gpu_jank_detect.enable": "true",
    "debug.vendor.perf.smart_touch": "1",
    "debug.vendor.perf.smart_touch.move": "1",
    "debug.perf.enable_big_jank_detect": "1",
    "debug.perf.cpu_big_jank_threshold_ms": "38"
  },
  "apps": [
    {
      "package": "com.example.game", "pid": 4100, "uid": 10100, "game": true, "game_weight": 3,
      "layers": [
        {
          "label": "game", "id": 101,
          "name": "SurfaceView[com.example.game/com.example.game.GameActivity](BLAST)#101",
          "bounds": [0, 0, 1080, 2400], "focused": true, "buffers": 3, "smart_touch": true,
          "work": { "mean_ms": 9, "jitter_ms": 1, "gpu_ms": 4,
                    "heavy_ms": 50, "heavy_gpu_ms": 30, "heavy_every_s": 2, "heavy_from_s": 4.5 }
        }
      ]
    },
    {
      "package": "com.example.chat", "pid": 4200, "uid": 10200,
      "layers": [
        {
          "label": "chat", "id": 201,
          "name": "com.example.chat/com.example.chat.ChatActivity#201",
          "bounds": [60, 1500, 1020, 2300], "focused": false, "fps_cap": 30, "start_s": 0.5,
          "work": { "mean_ms": 5, "jitter_ms": 0.5, "gpu_ms": 2 }
        }
      ]
    }
  ],
  "timeline": [
    { "at_s": 0.2, "hint": 4187, "text": "com.example.game", "values": [0, 80, 0, 120] },
    { "at_s": 1.0, "touch": "drag", "layer": "game", "duration_s": 0.6, "interval_ms": 8,
      "repeat_every_s": 1.0, "count": 9 },
    { "at_s": 3.0, "hint": 4189, "text": "com.example.game:golden=0.8_jank=1.2;1.5;2.0_dynamic=1",
      "values": [1] },
    { "at_s": 5.0, "hint": 4171, "text": "com.example.game", "value": 4500 },
    { "at_s": 6.0, "hint": 4192, "text": "com.example.chat", "value": 0 },
    { "at_s": 7.0, "property": "debug.perf.cpu_big_jank_threshold_ms", "value": "45" },
    { "at_s": 7.5, "hint": 4192, "text": "com.example.game", "value": 1 }
  ]
}
)json";

} // namespace pelyx_sim

#!/usr/bin/env bash
# Builds the benchmarks in a release build and prints one table: measured figure, goal, pass/miss.
#   bench/run.sh [build dir]        (default: build-bench beside this folder)
#   BENCH_QUICK=1 bench/run.sh      shorter server runs, for trying the script out
# Needs port 1818 free (the server's fixed port) and no other rvowebSocketServer running; as root,
#   BENCH_ISOLATE=1 bench/run.sh    runs the server part in private network and process namespaces
# so that another server on this machine neither holds the port nor trips the single-instance check.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-bench}

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DRVO_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j2 --target rvowebSocketServer bench_preview bench_server >/dev/null

# Figures are only worth having on a quiet machine: wait (up to 5 minutes) for the load to fall.
load() { cut -d' ' -f1 /proc/loadavg; }
for _ in $(seq 60); do
    awk -v l="$(load)" 'BEGIN { exit !(l < 0.5) }' && break
    sleep 5
done
load_before=$(load)

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
export QT_QPA_PLATFORM=offscreen
"$build/bench/bench_preview" --frames 40 >"$out/preview" 2>"$out/preview.log"
quick=()
[ "${BENCH_QUICK:-0}" = 1 ] && quick=(--quick)
server=("$build/bench/bench_server" "${quick[@]}")
if [ "${BENCH_ISOLATE:-0}" = 1 ]; then
    server=(unshare --net --pid --fork --mount-proc
            bash -c 'ip link set lo up && exec "$@"' bench_server "${server[@]}")
fi
"${server[@]}" >"$out/server" 2>"$out/server.log" || {
    cat "$out/server.log" >&2
    exit 1
}
load_after=$(load)

cat "$out/preview" "$out/server" | awk -v iso="$( [ "${BENCH_ISOLATE:-0}" = 1 ] && echo '; server part in private namespaces' || true)" -v lb="$load_before" -v la="$load_after" -v cores="$(nproc)" '
$1 ~ /^[a-z]/ && NF == 2 { v[$1] = $2 }
function verdict(ok) { return ok ? "pass" : "MISS" }
function row(item, measured, goal, ok) {
    printf "| %-44s | %-52s | %-34s | %-4s |\n", item, measured, goal, verdict(ok)
}
function info(item, measured) {
    printf "| %-44s | %-52s | %-34s | %-4s |\n", item, measured, "(for comparison)", ""
}
END {
    printf "Load average %s before, %s after the run; %s cores%s.\n\n", lb, la, cores, iso
    printf "| %-44s | %-52s | %-34s | %-4s |\n", "Item", "Measured", "Goal", ""
    printf "|%s|%s|%s|%s|\n", "----------------------------------------------", \
        "------------------------------------------------------", "------------------------------------", "------"
    r = v["raw.ratio"]
    row("1 Preview step, raw 5 MP frame (RGB32)",
        sprintf("%.2f ms/frame CPU = %.2f x tjCompress2 %.2f ms", v["raw.steps"], r, v["ref.tjCompress2"]),
        "<= 1.4 x tjCompress2", r <= 1.4)
    info("  split: scale / JPEG+base64 / base64 alone",
         sprintf("%.2f / %.2f / %.2f ms", v["raw.split.scale"], v["raw.split.jpeg"], v["raw.split.base64"]))
    info("  getVideoFrame (BGR -> RGB32, 5 MP)", sprintf("%.2f ms/frame CPU", v["raw.getVideoFrame"]))
    info("  plain path: same step on 24-bit RGB",
         sprintf("%.2f ms = %.2f x (scale %.2f ms)", v["raw.plain888"], v["raw.plain888.ratio"], v["raw.plain888.split.scale"]))
    r = v["mjpeg.ratio"]
    row("2 Preview path, 5 MP MJPEG source",
        sprintf("%.2f ms/frame CPU = %.2f x tjDecompress2 1/2 %.2f ms", v["mjpeg.path"], r, v["ref.tjDecompress2_half"]),
        "<= 1.2 x tjDecompress2 at 1/2", r <= 1.2)
    info("  split: fetch / scale / JPEG+base64 / base64 alone",
         sprintf("%.2f / %.2f / %.2f / %.2f ms", v["mjpeg.getVideoFrame"], v["mjpeg.split.scale"], v["mjpeg.split.jpeg"], v["mjpeg.split.base64"]))
    info("  tjDecompress2 1/2 FASTDCT / 1/8 / full",
         sprintf("%.2f / %.2f / %.2f ms", v["ref.tjDecompress2_half_fastdct"], v["ref.tjDecompress2_eighth"], v["ref.tjDecompress2_full"]))
    info("  plain path: full-size decode + step",
         sprintf("%.2f ms = %.2f x", v["mjpeg.plainfull"], v["mjpeg.plainfull.ratio"]))
    row("3a Round trip sGetTempPath(), idle",
        sprintf("p50 %.3f  p99 %.3f  max %.3f ms (n=%d)", v["rtt.idle.p50_ms"], v["rtt.idle.p99_ms"], v["rtt.idle.max_ms"], v["rtt.idle.samples"]),
        "p99 <= 0.3 ms", v["rtt.idle.samples"] > 0 && v["rtt.idle.p99_ms"] <= 0.3)
    row("3b Round trip, 8 pages at 15 fps",
        sprintf("p50 %.3f  p99 %.3f  max %.3f ms (n=%d)", v["rtt.streaming.p50_ms"], v["rtt.streaming.p99_ms"], v["rtt.streaming.max_ms"], v["rtt.streaming.samples"]),
        "p99 <= 5 ms, none over 10 ms",
        v["rtt.streaming.samples"] > 0 && v["rtt.streaming.p99_ms"] <= 5 && v["rtt.streaming.max_ms"] <= 10)
    info("  frames per page while probing", sprintf("%.1f fps", v["rtt.streaming.page_fps"]))
    row("3c Round trip, camera start failing, retried",
        sprintf("p50 %.3f  p99 %.3f  max %.3f ms (n=%d)", v["rtt.retrying.p50_ms"], v["rtt.retrying.p99_ms"], v["rtt.retrying.max_ms"], v["rtt.retrying.samples"]),
        "max < 20 ms", v["rtt.retrying.samples"] > 0 && v["rtt.retrying.max_ms"] < 20)
    info("  failed starts answered while probing", sprintf("%d", v["rtt.retrying.failed_starts"]))
    row("4 Server CPU, 5 MP MJPEG, 15 fps, 8 pages",
        sprintf("%.1f %% of one core over %.0f s (%.1f fps/page)", v["cpu.server_percent"], v["cpu.seconds"], v["cpu.page_fps"]),
        "<= 25 %", v["cpu.server_percent"] <= 25)
    info("  of which synthetic camera (MJPEG encode)", sprintf("%.1f %%", v["cpu.camera_threads_percent"]))
    info("  server less the synthetic camera", sprintf("%.1f %%", v["cpu.server_less_camera_percent"]))
    row("5 VmRSS, one page stalled, one watching",
        sprintf("start %.1f  max %.1f  end %.1f MB; spread %.2f MB", v["mem.start_mb"], v["mem.max_mb"], v["mem.end_mb"], v["mem.after_warmup_spread_mb"]),
        "flat within 5 MB after warm-up", v["mem.after_warmup_spread_mb"] <= 5)
    info("  watcher frames while the other stalls", sprintf("%.1f fps", v["mem.watcher_fps"]))
}'

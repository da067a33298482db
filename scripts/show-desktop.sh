#!/usr/bin/env bash
# Shows the desktop surface on a virtual screen and on a Wayland compositor, and saves pictures:
#   docs/screenshots/menu.png             the tray icon's menu, right after start
#   docs/screenshots/alert.png            the alert that follows when no Node.js 22.13 is found
#   docs/screenshots/fallback.png         the window that carries the menu when there is no tray
#   docs/screenshots/icon-dark.png        the tray icon on a dark panel, enlarged four times
#   docs/screenshots/wayland-fallback.png the window on Weston, with no X server at all
#   docs/screenshots/wayland-alert.png    the alert on Weston
# Needs the built program (scripts/run.sh or scripts/build.sh), Xvfb, trayer, xdotool, Weston and
# ImageMagick. The launcher runs with a temporary HOME, so nothing of the user's is touched.
#   scripts/show-desktop.sh [build-dir]
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build_dir="${1:-$root/build}"
launcher="$build_dir/bin/lanternmoor-pro"
shots="$root/docs/screenshots"
[[ -x $launcher ]] || { echo "show-desktop: $launcher is not built yet" >&2; exit 1; }
for tool in Xvfb trayer xdotool xwininfo import convert display weston weston-screenshooter; do
  command -v "$tool" >/dev/null || { echo "show-desktop: $tool is missing" >&2; exit 1; }
done

# A workspace service already on the port would be opened instead, with no alert to show.
if (exec 3<>/dev/tcp/127.0.0.1/18765) 2>/dev/null; then
  echo "show-desktop: something answers on 127.0.0.1:18765; stop it first" >&2
  exit 1
fi

work="$(mktemp -d)"
pids=()
cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'echo "show-desktop: stopped at line $LINENO" >&2' ERR

# Waits up to $1 tenths of a second for the command after it to succeed.
wait_for() {
  local tries="$1"
  shift
  until "$@" >/dev/null 2>&1; do
    ((tries-- > 0)) || return 1
    sleep 0.1
  done
}

# The server picks a free display itself and writes its number to the descriptor.
exec {display_fd}<> <(:)
Xvfb -displayfd "$display_fd" -screen 0 800x480x24 -nolisten tcp -noreset >"$work/xvfb.log" 2>&1 &
pids+=($!)
read -r -t 10 -u "$display_fd" display_number || { echo "show-desktop: Xvfb did not start" >&2; exit 1; }
exec {display_fd}<&-
export DISPLAY=":$display_number"
wait_for 50 xdotool getdisplaygeometry
# A plain desktop colour, so the pictures show the icon and windows rather than black.
convert -size 800x480 xc:'#4f6d8a' "$work/desktop.png"
# display reports failure even when it has set the background.
display -window root "$work/desktop.png" || true

# A light panel along the top edge, as wide as the icons it holds.
trayer --edge top --align right --widthtype request --height 32 --SetDockType true \
  --transparent true --alpha 0 --tint 0xeeeeee >"$work/trayer.log" 2>&1 &
pids+=($!)
panel() { xdotool search --classname '^panel$' | head -n 1; }
wait_for 50 panel

# The stand-in `node` answers a version too old after a pause, so the alert comes only after
# the menu has been photographed. The launcher also looks in the places checked below, which
# must hold no Node.js 22.13 or newer for the alert to come.
mkdir -p "$work/home" "$work/bin"
cat >"$work/bin/node" <<'EOF'
#!/bin/sh
sleep 4
echo v18.20.4
EOF
chmod +x "$work/bin/node"
for node in /opt/homebrew/bin/node /usr/local/bin/node /usr/bin/node /bin/node; do
  if "$node" --version 2>/dev/null | "$build_dir/bin/lanternmoor-node-check"; then
    echo "show-desktop: $node is new enough, so no alert would appear" >&2
    exit 1
  fi
done

# Sanitizer settings pass through, so a sanitized build can be shown as well.
sanitizer_settings=()
for name in ASAN_OPTIONS LSAN_OPTIONS UBSAN_OPTIONS; do
  if [[ -n ${!name:-} ]]; then sanitizer_settings+=("$name=${!name}"); fi
done
# Starts the launcher as a user would, with nothing of this machine's environment but the screen
# it is given (DISPLAY unless named).
start_launcher() {
  (($# > 0)) || set -- DISPLAY="$DISPLAY"
  env -i "$@" HOME="$work/home" PATH="$work/bin:/usr/bin:/bin" LANG=C.UTF-8 "${sanitizer_settings[@]}" \
    "$launcher" >"$work/launcher.log" 2>&1 &
  launcher_pid=$!
  pids+=("$launcher_pid")
}
# A termination request from the system ends the launcher the regular way, alert and all.
stop_launcher() {
  kill -TERM "$launcher_pid"
  wait "$launcher_pid" || { echo "show-desktop: the launcher ended with status $?" >&2; cat "$work/launcher.log" >&2; exit 1; }
}
start_launcher

# The icon is the only thing in the panel, so its middle is the panel's middle.
icon_middle() {
  eval "$(xdotool getwindowgeometry --shell "$(panel)")"
  ((WIDTH > 8)) || return 1
  echo "$((X + WIDTH / 2)) $((Y + HEIGHT / 2))"
}
wait_for 100 icon_middle || { echo "show-desktop: the tray icon did not appear" >&2; exit 1; }
sleep 0.5
read -r icon_x icon_y < <(icon_middle)
xdotool mousemove "$icon_x" "$icon_y" click 1
# The menu is the launcher's one top-level window of some size; the icon sits inside the panel.
menu_shown() { xwininfo -root -children | grep -Eq '"lanternmoor-pro"\)  [0-9]{3,}x[0-9]+'; }
wait_for 30 menu_shown || { echo "show-desktop: the menu did not open" >&2; exit 1; }
sleep 0.3
mkdir -p "$shots"
import -window root "$shots/menu.png"
xdotool key Escape
echo "show-desktop: saved $shots/menu.png"

alert_window() { xdotool search --onlyvisible --name '请先安装 Node.js'; }
wait_for 150 alert_window || { echo "show-desktop: no alert appeared" >&2; cat "$work/launcher.log" >&2; exit 1; }
sleep 0.5
import -window root "$shots/alert.png"
echo "show-desktop: saved $shots/alert.png"

stop_launcher

# Without a tray host, a small window carries the menu. This `node` never answers, so the
# launcher stays in its starting state while it is photographed.
kill "${pids[1]}"
wait "${pids[1]}" 2>/dev/null || true
printf '#!/bin/sh\nexec sleep 60\n' >"$work/bin/node"
start_launcher
fallback_window() { xdotool search --onlyvisible --name '^Lanternmoor Pro$'; }
wait_for 100 fallback_window || { echo "show-desktop: no window appeared" >&2; cat "$work/launcher.log" >&2; exit 1; }
sleep 0.5
import -window root "$shots/fallback.png"
echo "show-desktop: saved $shots/fallback.png"
stop_launcher

# The icon on a dark panel, cropped from the screen and enlarged.
trayer --edge top --align right --widthtype request --height 32 --SetDockType true \
  --transparent true --alpha 0 --tint 0x222222 >"$work/trayer-dark.log" 2>&1 &
pids+=($!)
wait_for 50 panel
start_launcher
wait_for 100 icon_middle || { echo "show-desktop: the tray icon did not appear" >&2; exit 1; }
sleep 0.5
eval "$(xdotool getwindowgeometry --shell "$(panel)")"
import -window root "$work/dark.png"
convert "$work/dark.png" -crop "${WIDTH}x${HEIGHT}+${X}+${Y}" +repage -scale 400% "$shots/icon-dark.png"
echo "show-desktop: saved $shots/icon-dark.png"
stop_launcher

# Weston, headless and drawing in memory, in a runtime folder of its own; --debug lets its
# screenshooter take the pictures. The launcher gets no DISPLAY, only WAYLAND_DISPLAY.
runtime="$work/runtime"
mkdir -m 700 "$runtime"
XDG_RUNTIME_DIR="$runtime" weston --backend=headless-backend.so --use-pixman --socket=wayland-lm --width=800 --height=480 \
  --idle-time=0 --debug --logger-scopes=log,proto --log="$runtime/weston.log" >/dev/null 2>&1 &
pids+=($!)
wait_for 50 test -S "$runtime/wayland-lm"
wayland_shot() {
  rm -f "$runtime"/wayland-screenshot-*.png
  (cd "$runtime" && XDG_RUNTIME_DIR="$runtime" WAYLAND_DISPLAY=wayland-lm weston-screenshooter)
  mv "$runtime"/wayland-screenshot-*.png "$shots/$1"
  echo "show-desktop: saved $shots/$1"
}
# The compositor's log names every window its clients put up.
wayland_window() { grep -q "set_title(\"$1\")" "$runtime/weston.log"; }
cat >"$work/bin/node" <<'EOF'
#!/bin/sh
sleep 4
echo v18.20.4
EOF
start_launcher WAYLAND_DISPLAY=wayland-lm XDG_RUNTIME_DIR="$runtime"
wait_for 100 wayland_window 'Lanternmoor Pro' || { echo "show-desktop: no window on Weston" >&2; cat "$work/launcher.log" >&2; exit 1; }
sleep 0.5
wayland_shot wayland-fallback.png
wait_for 150 wayland_window '请先安装 Node.js' || { echo "show-desktop: no alert on Weston" >&2; cat "$work/launcher.log" >&2; exit 1; }
sleep 0.5
wayland_shot wayland-alert.png
stop_launcher

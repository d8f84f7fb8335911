#!/bin/bash
# Starts the browser helper that shows the counter pages on the customer's screen. A second
# copy ends at once: the one already running keeps serving.
dir=$(dirname "$0")
# Without a desktop (a server started from a console) Qt draws off screen rather than failing.
if [ -z "$DISPLAY" ] && [ -z "$WAYLAND_DISPLAY" ] && [ -z "$QT_QPA_PLATFORM" ]; then
  export QT_QPA_PLATFORM=offscreen
fi
exec "$dir/webbrowserhelper" "$@"

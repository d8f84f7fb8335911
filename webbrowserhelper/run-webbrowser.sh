#!/bin/bash
# Starts the browser helper that shows the counter pages on the customer's screen. A second
# copy ends at once: the one already running keeps serving.
dir=$(dirname "$0")
exec "$dir/webbrowserhelper" "$@"

#!/bin/bash
# Starts the signing service (the customer's signing panel). A second copy ends at once: the
# one already running keeps serving.
dir=$(dirname "$0")
exec "$dir/elecsign" "$@"

# What the scripts that run a fleet of their own share. They source it in the project's root. It makes
# a directory, $work, and at the end of the script ends its jobs and the process $last, if it is set,
# and removes the directory. $sources is the project's root.
# shellcheck shell=bash disable=SC2034,SC2154

sources=$PWD
work=$(mktemp -d)
trap 'kill $(jobs -p) ${last:-} 2>/dev/null || true; wait; rm -rf "$work"' EXIT

# Installs what is missing, builds the programs of a fleet into build/demo and adds them to the path.
build_fleet() {
  ./scripts/dependencies.sh build broker web
  echo "Building the examples into build/demo ..."
  if ! { cmake --preset release -B build/demo -DORV_BUILD_TESTS=OFF -DORV_BUILD_REPORTING=ON &&
    cmake --build build/demo --target host_monitor collector; } >"$work/log" 2>&1; then
    cat "$work/log" >&2
    exit 1
  fi
  PATH=$PWD/build/demo/examples:/usr/sbin:$PATH
}

is_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# Prints the first port from the one given on that nobody listens on.
free_port() {
  local port=$1
  while is_open "$port"; do port=$((port + 1)); done
  echo "$port"
}

# Starts a broker in the current directory and waits for it. $broker is its URL then.
start_broker() {
  local port
  port=$(free_port 18830)
  broker=mqtt://localhost:$port
  mosquitto -c "$sources/examples/broker/mosquitto.conf" -p "$port" >broker.log 2>&1 &
  until is_open "$port"; do
    kill -0 $! || { cat broker.log >&2; exit 1; }
    sleep 0.1
  done
}

# Writes a value into a file of a recorded machine, at once for whoever reads it: FILE VALUE.
put() {
  echo "$2" >"$1.new"
  mv "$1.new" "$1"
}

# Makes a directory with a recorded machine, which has the directory's name.
unpack_machine() {
  mkdir "$1"
  awk -v to="$1/" '
    /^== / { file = to substr($0, 4); system("mkdir -p \"$(dirname \"" file "\")\""); next }
    { print >file }' "$sources/examples/samples/machine.txt"
  put "$1/proc/sys/kernel/hostname" "$1"
}

# Runs the command again and again until it succeeds: SECONDS COMMAND... Fails when time runs out.
await() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ $SECONDS -lt $end ] || { echo "in vain: $*" >&2; return 1; }
    sleep 0.2
  done
}

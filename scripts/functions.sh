# What scripts share that run the programs or a broker. They source it in the project's root,
# $sources. It makes a directory, $work. When the script ends, so do its jobs and the processes whose
# numbers are in files *.pid of the directory, which is removed.
# shellcheck shell=bash

sources=$PWD
work=$(mktemp -d)
trap 'kill $(jobs -p) $(cat "$work"/*.pid 2>/dev/null) 2>/dev/null || true; wait; rm -rf "$work"' EXIT

# Ends a test as skipped unless these programs are installed.
need() {
  local program
  for program in "$@"; do
    command -v "$program" >/dev/null || { echo "$program is not installed" >&2; exit 77; }
  done
}

# Builds the programs of these names into build/demo and adds them to the path.
build_programs() {
  echo "Building the programs into build/demo ..."
  if ! { cmake --preset release -B build/demo -DORV_BUILD_TESTS=OFF -DORV_BUILD_REPORTING=ON &&
    cmake --build build/demo --target "$@"; } >"$work/build.log" 2>&1; then
    cat "$work/build.log" >&2
    exit 1
  fi
  PATH=$sources/build/demo/programs:$sources/build/demo/examples:$PATH
}

is_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# Prints a port that nobody listens on, drawn at random, as several scripts may look for one at a time.
free_port() {
  local port=$((20000 + RANDOM % 10000))
  while is_open "$port"; do port=$((port + 1)); done
  echo "$port"
}

# Starts a broker and waits for it. $broker is its URL then, $broker_pid its process.
start_broker() {
  local port
  port=$(free_port)
  broker=mqtt://localhost:$port
  (cd "$work" && PATH=$PATH:/usr/sbin &&
    exec mosquitto -c "$sources/examples/broker/mosquitto.conf" -p "$port" >broker.log 2>&1) &
  broker_pid=$!
  until is_open "$port"; do
    kill -0 $! || { cat "$work/broker.log" >&2; exit 1; }
    sleep 0.1
  done
}

# Writes a value into a file of a recorded machine, at once for whoever reads it: FILE VALUE.
put() {
  echo "$2" >"$1.new"
  mv "$1.new" "$1"
}

# Makes the directory NAME with a recorded machine of that name, and has it reported every so many
# SECONDS by the process in NAME.pid, which writes NAME.log: NAME SECONDS.
report_machine() {
  "$sources/scripts/unpack_machine.sh" "$1" "$sources/examples/samples/machine.txt"
  put "$1/proc/sys/kernel/hostname" "$1"
  # No job of this shell, which would have a word to say when it is killed.
  (host_monitor --broker "$broker" --root "$1" --interval "$2" >"$1.log" 2>&1 &
    echo $! >"$1.pid")
}

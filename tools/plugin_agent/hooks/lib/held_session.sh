# For hooks whose `freeze` lasts for as long as a database session does: keeps an SQL client running
# when the hook has ended, until `thaw`. Sourced; needs $state, a directory only the agent's user
# may use.

# The client holds the fifo that it reads open for writing too, so it never reads an end of file.
is_held() {
  pid=$(cat "$state/pid" 2>/dev/null) && [ "/proc/$pid/fd/0" -ef "$state/in" ]
}

# hold_session CLIENT...: starts it. A shell function must exec the client.
hold_session() {
  rm -rf "$state"
  mkdir -p -m 700 "$state" && mkfifo -m 600 "$state/in" || return 1
  "$@" <>"$state/in" >"$state/out" 2>&1 &
  echo $! >"$state/pid"
}

# Opened for both directions: opened for writing alone, a fifo whose client has ended would block.
tell_session() { printf '%s\n' "$1" 1<>"$state/in"; }

# wait_for_answer TEXT: until the client has printed it on a line of its own. Fails, with what it
# printed, when the client has ended.
wait_for_answer() {
  until grep -qx "$1" "$state/out"; do
    is_held || { cat "$state/out"; return 1; }
    sleep 0.05
  done
}

# end_session SQL: has the client run it and waits for the client's end; kills one that does not end.
# When there is no session, nothing is frozen, and this is no failure.
end_session() {
  if is_held; then
    tell_session "$1"
    tries=60
    while is_held && [ "$tries" -gt 0 ]; do
      sleep 0.05
      tries=$((tries - 1))
    done
    if is_held; then
      echo "the session does not answer: killed, and with it what it held"
      kill -9 "$pid"
    fi
    cat "$state/out"
  fi
  rm -rf "$state"
}

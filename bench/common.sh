# Helpers shared by the benchmark scripts (sourced; expects $root).

# One-thread runs all go to the same core: the cores of a virtual machine
# can differ in speed by half (a busy neighbour on a shared physical core),
# and a ratio is only fair between runs on the same one.
pin_cpu=$(($(nproc) - 1))
pin_to_one_cpu() {
  command -v taskset >/dev/null && taskset -cp "$pin_cpu" "$BASHPID" >/dev/null 2>&1 || true
}

# The commit measured, when the sources are a git checkout.
source_version() {
  local v top
  top=$(git -C "$root" rev-parse --show-toplevel 2>/dev/null || true)
  if [[ $top == "$root" ]] && v=$(git -C "$root" describe --always --dirty 2>/dev/null); then
    echo "$root at $v"
  else
    echo "$root"
  fi
}

# shellcheck shell=bash
# The libraries of a camera, for building its programs on a PC; sourced by scripts that stand in the
# project's folder.

# What the daemon and camctl are linked with on a camera.
sysroot_packages=(libc6-dev libinih-dev libcurl4-openssl-dev libasound2-dev libcli11-dev)

# make_sysroot FOLDER: unpacks those packages and what they need of the distribution's 32-bit little-endian
# MIPS there. Nothing of them is installed or run: this PC's own packages, and their versions, don't matter.
make_sysroot() {
  local folder=$1 apt one
  [ ! -e "$folder/complete" ] || return 0
  rm -rf -- "$folder"
  mkdir -p -- "$folder/apt"/{lists,archives}/partial
  folder=$(realpath -- "$folder")
  : >"$folder/apt/status"
  apt=(apt-get -qq -y --no-install-recommends
    -o APT::Architecture=mipsel -o APT::Architectures=mipsel -o "APT::Sandbox::User=$(id -un)"
    -o Debug::NoLocking=1 -o "Dir::State=$folder/apt" -o "Dir::State::Lists=$folder/apt/lists"
    -o "Dir::State::Status=$folder/apt/status" -o "Dir::Cache=$folder/apt")
  "${apt[@]}" update
  "${apt[@]}" --download-only install "${sysroot_packages[@]}" >/dev/null
  for one in "$folder"/apt/archives/*.deb; do dpkg-deb -x "$one" "$folder"; done
  rm -r -- "$folder/apt"
  : >"$folder/complete"
}

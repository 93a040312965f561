# shellcheck shell=bash
# Installation of what a script needs from the distribution; sourced.

# What building everything needs, here and in the scripts that source this.
# shellcheck disable=SC2034
build_packages=(build-essential cmake ninja-build pkg-config googletest libbenchmark-dev libinih-dev
  libcli11-dev
  libasound2-dev libavcodec-dev libavformat-dev libavdevice-dev libavutil-dev libswscale-dev
  libcairo2-dev libcurl4-openssl-dev libfuse3-dev libsmbclient-dev)
# shellcheck disable=SC2034
board_packages=(bubblewrap fonts-dejavu-core)  # what running a board needs

# shellcheck disable=SC2034
delivery_packages=(python3 python3-pyftpdlib python3-openssl python3-aiosmtpd openssl samba
  smbclient fuse3)  # servers to deliver to, and what mounts a share

# missing_packages PACKAGE...: those that are not installed, one a line.
missing_packages() {
  local package
  for package; do
    if [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
      echo "$package"
    fi
  done
}

# as_root COMMAND...: runs it as root, by sudo where need be. Fails where that is not possible.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif ! command -v sudo >/dev/null; then
    return 1
  elif [ -t 0 ]; then
    sudo "$@"
  else
    sudo -n "$@"  # nobody is there to type a password
  fi
}

# The package samba starts its services and has them started with the PC, open to the network. We start
# smbd by hand, for ourselves alone: a PC that has had no Samba gets no such service from us.
samba_services=(smbd nmbd samba-ad-dc)
samba_preset=/run/systemd/system-preset/00-video_svr.preset  # gone with the next start of the PC

# hold_services: whoever installs them now neither starts them nor has them started.
hold_services() {
  as_root mkdir -p "${samba_preset%/*}"
  printf 'disable %s.service\n' "${samba_services[@]}" | as_root tee "$samba_preset" >/dev/null
}

let_go_services() {
  local service
  as_root rm -f "$samba_preset" || true
  if [ ! -d /run/systemd/system ]; then
    # They have become part of the run levels. Where systemd runs the preset has kept them out.
    for service in "${samba_services[@]}"; do
      as_root update-rc.d "$service" disable >/dev/null 2>&1 || true
    done
  fi
  echo "Samba's services are installed, but off (on: systemctl enable --now smbd)"
}

# install_packages PACKAGE...: as root or by sudo; what can't be installed is still missing afterwards.
install_packages() {
  # Without systemd it is the run level that keeps services from being started: none is in this one.
  local apt=(env DEBIAN_FRONTEND=noninteractive RUNLEVEL=1 apt-get -qq -y --no-install-recommends install)
  # A failed update is no reason to give up: the lists that are there may do.
  as_root apt-get -qq update || true
  if [[ " $* " != *' samba '* ]]; then
    as_root "${apt[@]}" "$@" >/dev/null || true
    return
  fi
  # In a shell of its own, so that they are let go after a Ctrl-C too.
  (
    trap let_go_services EXIT
    hold_services || true
    as_root "${apt[@]}" "$@" >/dev/null || true
  )
}

# need_packages PACKAGE...: installs what is missing, as root or by sudo. Where that fails it says
# which packages are missing and ends the script with status 1.
need_packages() {
  local missing
  if ! command -v dpkg-query >/dev/null; then
    echo "This is no Debian system: make sure that it has what these packages of Debian hold:" >&2
    echo "  $*" >&2
    return
  fi
  mapfile -t missing < <(missing_packages "$@")
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "Installing ${missing[*]}"
  install_packages "${missing[@]}"
  mapfile -t missing < <(missing_packages "$@")
  [ ${#missing[@]} -gt 0 ] || return 0
  {
    echo "These packages are missing and can't be installed:"
    printf '  %s\n' "${missing[@]}"
    echo "Install them as root, then start again:"
    echo "  apt-get install ${missing[*]}"
  } >&2
  exit 1
}

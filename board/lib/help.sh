# shellcheck shell=bash
# Help texts.

help_start_options() {
    cat <<'TEXT'
  --suite auto|forky|trixie  what the board is made of (auto: forky while it holds Podman 5.8, else trixie)
  --bind SRC:DST[:ro]        show a file or directory of this machine inside (may be given several times)
  --env K=V                  environment variable of the commands inside (may be given several times)
  --cpus LIST                the board's CPUs, such as 0 or 0,2-3 (default: all that this process may use)
  --name NAME                the board's name (default: made from the process id)
  --quiet                    only errors
TEXT
}

help_all() {
    cat <<'TEXT'
usage: board COMMAND [OPTIONS]

A throw-away board: a Linux system of its own, on which every absolute path of the product is real.

  fetch     fill the cache (root file system, firmware image, busybox image)
  run       run one command on a board that exists only for it
  up        start a board that stays
  exec      run a command on a board that is up
  shell     a shell on a board
  forward   make a TCP port of a board reachable on this machine
  list      the boards there are
  down      end a board
  sweep     remove what boards left behind whose owner was killed

board COMMAND --help tells more. Exit status, where it is not that of the command on the board:
  64 wrong option    65 not root           66 missing tool      67 no loop devices  68 no file system
  69 no cpuset       70 no package archive 71 disk full         72 unknown board    73 start failed
  74 name taken      75 building failed
TEXT
}

show_help() { # [COMMAND]
    case ${1:-} in
        fetch) echo 'usage: board fetch [--suite auto|forky|trixie] [--quiet]
Fills the cache and says which suite and which Podman it took, and why. Quick when it is filled already.' ;;
        run)
            echo 'usage: board run [OPTIONS] -- COMMAND [ARGUMENT...]
Starts a board, runs COMMAND on it with this input and output, removes the board.
Exit status: that of COMMAND, 128 + signal if one killed it.'
            help_start_options
            ;;
        up)
            echo 'usage: board up [OPTIONS]
Starts a board that stays until "board down", and prints its name once it is ready.'
            help_start_options
            ;;
        exec) echo 'usage: board exec [--env K=V]... NAME [--] COMMAND [ARGUMENT...]
Runs COMMAND on a board that is up. Exit status as with "board run".' ;;
        shell)
            echo 'usage: board shell [NAME]
A shell on the board NAME, on the only one that is up, or, if there is none, on a throw-away one (OPTIONS for that):'
            help_start_options
            ;;
        forward) echo 'usage: board forward [--listen LOCALPORT] NAME PORT
Makes PORT of the board'"'"'s loopback reachable on this machine'"'"'s loopback until the board ends, and prints the local
port: LOCALPORT, or a free one when that is taken or not given.' ;;
        list) echo 'usage: board list
All boards: name, kind, status, process id of the first process, cache entry.' ;;
        down) echo 'usage: board down NAME... | --all
Ends boards and removes everything they were made of.' ;;
        sweep) echo 'usage: board sweep
Removes the remains of boards whose owner was killed (also done at the start of "run", "up" and "fetch").' ;;
        *) help_all ;;
    esac
}

# zsh -f complete.zsh WORD...   (SOURCE=printed|printed-without-compinit|installed, SITE_FUNCTIONS)
# Loads the completion the way a zsh user would, then calls what compinit has registered for
# vorn with words and CURRENT set, as a completion widget would. compadd and _default are
# stood in for, since no line editor runs: compadd prints the candidates that match the
# word being completed (as the real one keeps them), _default prints the file marker.
case $SOURCE in
  printed) autoload -Uz compinit && compinit -u; eval "$("$VORN_UNDER_TEST" shell-command completion zsh)" ;;
  printed-without-compinit) eval "$("$VORN_UNDER_TEST" shell-command completion zsh)" ;;
  installed) fpath=($SITE_FUNCTIONS $fpath); autoload -Uz compinit && compinit -u ;;
esac
compadd() {
  local -a m; local seen=0 x n=0
  while (( $# )); do
    if (( seen )); then m+=("$1")
    elif [[ $1 == - ]]; then seen=1
    elif [[ $1 == -[SPpsIiJVXxrRFWMEOAD] ]]; then shift
    fi
    shift
  done
  for x in "${m[@]}"; do
    if [[ $x == ${PREFIX}* ]]; then print -r -- "word $x"; (( n++ )); fi
  done
  (( n ))
}
_default() { print -r -- "word <files>"; }
words=("$@"); CURRENT=$#words; PREFIX=$words[CURRENT]
for round in 1 2; do
  print -r -- "spec $_comps[vorn]"
  [[ -n $_comps[vorn] ]] || exit 3
  ${=_comps[vorn]}
  print -r -- "done"
done

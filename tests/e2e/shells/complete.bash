# bash complete.bash LINE WORD...   (SOURCE=printed|installed; BASH_COMPLETION_LOADER: the path
# of bash-completion's bash_completion script)
# Loads the completion, finds the function registered for vorn, calls it as bash's completion
# does (COMP_WORDS, COMP_CWORD, COMP_LINE, COMP_POINT, and the three arguments) and prints
# the registration and COMPREPLY. A function that returns other than 0 fails the run (exit 4).
line=$1; shift
case $SOURCE in
  printed) eval "$("$VORN_UNDER_TEST" shell-command completion bash)" ;;
  installed)
    # bash-completion's on-demand loader, as bash calls it for a command it has no completion for.
    . "$BASH_COMPLETION_LOADER"
    loader=$(complete -p -D); loader=${loader##*-F }; loader=${loader%% *}
    "$loader" vorn "" ""
    ;;
esac
spec=$(complete -p vorn) || exit 3
fn=${spec##*-F }; fn=${fn%% *}
COMP_WORDS=("$@"); COMP_CWORD=$(( $# - 1 )); COMP_LINE=$line; COMP_POINT=${#line}
COMPREPLY=()
"$fn" vorn "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
status=$?
if [ "$status" != 0 ]; then echo "complete.bash: $fn returned $status" >&2; exit 4; fi
printf 'spec %s\n' "$spec"
for w in "${COMPREPLY[@]}"; do printf 'word %s\n' "$w"; done

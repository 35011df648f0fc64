# complete.zsh FOLDER COMPLETION: reads command lines, one a line, and prints what a real zsh makes of each when
# the tab key is pressed. A line that begins with "?" is one of several candidates: what zsh lists is printed until
# the text after the next "?". FOLDER has sccctl, COMPLETION is its completion.
zmodload zsh/zpty || exit
mkdir functions && cp $2 functions/_sccctl && mkfifo told && exec {told}<>told || exit
zpty line zsh -f -i || exit
zpty -w line "fpath=($PWD/functions \$fpath) path=($1 \$path) told=$PWD/told PS1=; autoload -U compinit; compinit -u -D"
zpty -w line 'tell() { print -r -- $BUFFER >$told; BUFFER=; }; zle -N tell; bindkey "^X" tell'
zpty -w line 'bindkey "^I" complete-word; print ready >$told'
read -u $told answer
while read -r keys; do
    while zpty -rt line drained; do :; done
    if [[ $keys == \?* ]]; then
        zpty -w -n line "${${keys#\?}%%\?*}"$'\t'
        zpty -r line shown "*${keys##*\?}*" && print -r -- "lists ${keys##*\?}"
        zpty -w -n line $'\x18'
    else
        zpty -w -n line "$keys"$'\t\x18'
    fi
    read -u $told answer
    print -r -- $answer
done
zpty -d line

# fish completion for mivo(8).

# Prints what the next word should be: "port", "option", or an option and the number of values that it still lacks.
function __mivo_next
    set -l words (commandline -opc)
    if test (count $words) -lt 2
        echo port
        return
    end
    # An option takes the words after it as its values, even if they look like options.
    set -l value 0
    set -l option
    for word in $words[3..-1]
        if test $value -gt 0
            set value (math $value - 1)
        else
            set option $word
            switch $word
                case -ssl
                    set value 3
                case -map
                    set value 2
            end
        end
    end
    if test $value -eq 0
        echo option
    else
        echo -- $option $value
    end
end

complete -c mivo -f
complete -c mivo -n 'test (__mivo_next) = option' -a '-ssl' -d 'HTTPS: port, key and certificate'
complete -c mivo -n 'test (__mivo_next) = option' -a '-map' -d 'Host header and local port'
complete -c mivo -n 'string match -qr -- "^-ssl [12]\$" (__mivo_next)' -F
# Only after "-", because Tab would insert -1 in place of a port that is still to be written.
complete -c mivo -n 'test (__mivo_next) = "-map 1"; and string match -q -- "-*" (commandline -ct)' \
    -a '-1' -d 'the echo page'

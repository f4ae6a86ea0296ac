# fish completion for evenloud-cli
complete -c evenloud-cli -s t -l target -x -d 'Target position 0-100 on the -70..-5 LUFS scale'
complete -c evenloud-cli -s l -l lufs -x -d 'Target loudness in LUFS, -70 to -5'
complete -c evenloud-cli -l true-peak -x -d 'True-peak ceiling in dBTP, -9 to 0'
complete -c evenloud-cli -l limit-peaks -d 'Reach the target, holding peaks with a limiter'
complete -c evenloud-cli -s o -l output-folder -xa '(__fish_complete_directories)' -d 'Write results into DIR'
complete -c evenloud-cli -l replace -d 'Replace each original with its result'
complete -c evenloud-cli -l preserve-mtime -d "With --replace, keep each original's modification time"
complete -c evenloud-cli -s r -l recursive -d 'Descend into sub-folders'
complete -c evenloud-cli -s j -l jobs -x -d 'Files processed at once'
complete -c evenloud-cli -l json -d 'Print the results as a JSON array'
complete -c evenloud-cli -s h -l help -d 'Show the help and exit'
complete -c evenloud-cli -s V -l version -d 'Show the version and exit'

# Leaves of a page what differs from page to page: its texts and the values of its markup.
/<style>/,/<\/style>/d
/<script>/,/<\/script>/d
/^<div class="wide">$/d
s/<\/[^>]*>//g
s/ (class|role|scope|aria-[a-z]*|viewBox|colspan|id)="[^"]*"//g
s/ [a-z0-9-]+="([^"]*)"/ \1/g
s/<[a-z0-9]+ ?//g
s/\/?>/|/g
/^\|*$/d

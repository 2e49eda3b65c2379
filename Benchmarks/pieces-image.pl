#!/usr/bin/perl
# Writes an image with files in pieces: "image", and "manifest" with one line a file: what is expected of it (whole, missing),
# its kind, size, name, and its pieces as offset+length on the image.
#
#   pieces-image.pl <scenario> <seed> <unit> <folder of files>     in the folder where both are written
use strict;
use warnings;

my ($scenario, $seed, $unit, $folder) = @ARGV;
srand($seed);

my %kinds;
for my $path (sort glob "$folder/*.*") {
    my ($kind) = $path =~ /\.([^.]+)$/;
    my $size = -s $path;
    push @{ $kinds{$kind} }, $path if $size >= 6 * $unit && $size < 3_000_000;
}
sub shuffled { my @list = @_; for (my $i = @list; --$i > 0;) { my $j = int rand($i + 1); @list[$i, $j] = @list[$j, $i] } @list }
$_ = [shuffled(@$_)] for map { $kinds{$_} } sort keys %kinds;
my %used;
# The next file of one of these kinds that was not taken.
sub take_file {
    for my $kind (@_) {
        for my $path (@{ $kinds{$kind} // [] }) { return $path unless $used{$path}++ }
    }
    return;
}
sub bytes_of { my ($path) = @_; open my $in, '<:raw', $path or die "$path: $!"; local $/; my $bytes = <$in>; $bytes }

open my $out, '>:raw', 'image' or die;
my $position = 0;
my @files;
sub append { my ($bytes) = @_; print $out $bytes; $position += length $bytes }
sub align { append("\0" x (-$position % $unit)) }
my @words = qw(en dag i juli stod solen stille over fjorden og ingen havde travlt the old man on the quay was mending his nets);
sub text_of { my ($count) = @_; my $text = ''; $text .= $words[rand @words] . (rand() < 0.1 ? ".\n" : ' ') while length $text < $count; substr $text, 0, $count }
sub random_of { my ($count) = @_; join '', map { pack 'L', int rand 4294967296 } 1 .. $count / 4 }
sub whole_gap { my $path = take_file(@_) or return append(random_of(4096)); my $file = { path => $path, expect => 'whole', bytes => bytes_of($path), pieces => [] };
    push @files, $file; put($file, 0, length $file->{bytes}) }
sub gap {
    my ($kind) = @_;
    my $count = $unit * (1 + int rand 60);
    if ($kind eq 'text') { append(text_of($count)) }
    elsif ($kind eq 'random') { append(random_of($count)) }
    elsif ($kind eq 'zero') { append("\0" x $count) }
    elsif ($kind eq 'document') { whole_gap(qw(sqlite ods odp)) }
    else { whole_gap(qw(gif jpg png)) }
    align();
}
sub some_gap { gap((qw(text random random zero))[rand 4]) }
sub put { # a piece of a file
    my ($file, $from, $to) = @_;
    push @{ $file->{pieces} }, [$position, $to - $from];
    append(substr $file->{bytes}, $from, $to - $from);
    align();
}
sub new_file { my $path = take_file(@_) or return; my $file = { path => $path, expect => 'whole', bytes => bytes_of($path), pieces => [] }; push @files, $file; $file }
# The bounds of so many pieces, in units, none of them next to another.
sub bounds {
    my ($file, $count) = @_;
    my $units = int((length $file->{bytes}) / $unit);
    my @cuts = sort { $a <=> $b } map { 1 + int(($units - 1) * ($_ - 0.9 + 0.8 * rand) / $count) } 1 .. $count - 1;
    $_ = $_ < 1 ? 1 : $_ for @cuts;
    return (0, (map { $_ * $unit } @cuts), length $file->{bytes});
}
sub piece { my ($file, $bounds, $number) = @_; put($file, @$bounds[$number, $number + 1]) }

my @mix = ([qw(jpg)], [qw(png)], [qw(docx odt)], [qw(pdf)], [qw(jpg)], [qw(mp4 mov)], [qw(zip)], [qw(doc xls ppt)], [qw(mp3)], [qw(gif)], [qw(avi)], [qw(jpg)], [qw(mkv webm)], [qw(xlsx pptx)]);
some_gap();
if ($scenario eq 'layout2006') {
    my @what = ([qw(jpg)], [qw(jpg)], [qw(docx)], [qw(jpg)], [qw(zip)], [qw(jpg)], [qw(doc)], [qw(jpg)], [qw(pdf)], [qw(jpg)], [qw(png)], [qw(jpg)], [qw(odt)], [qw(jpg)], [qw(xls)]);
    my @gaps = qw(text random document picture);
    my $number = 0;
    for my $kinds (@what) {
        my $file = new_file(@$kinds) or next;
        my @bounds = bounds($file, 2);
        piece($file, \@bounds, 0);
        gap($gaps[$number++ % 4]);
        piece($file, \@bounds, 1);
        some_gap();
    }
    whole_gap(qw(jpg zip)) for @files .. 20;
} elsif ($scenario eq 'inorder') {
    while (@files < 50) {
        my @group = grep { defined } map { new_file(@{ $mix[(@files) % @mix] }) || new_file(map { @$_ } @mix) } 1 .. 1 + int rand 3;
        last unless @group;
        my @parts;
        for my $file (@group) { my $count = rand() < 0.5 ? 2 : 3; $file->{bounds} = [bounds($file, $count)]; push @parts, ($file) x $count }
        # Intertwined: in random order between the files, in order within each.
        my %next;
        my $last;
        for my $file (shuffled(@parts)) {
            some_gap() if !defined $last || $last == $file || rand() < 0.3;
            piece($file, $file->{bounds}, $next{$file}++);
            $last = $file;
        }
    }
} elsif ($scenario eq 'disorder') {
    for my $number (0 .. 10) {
        my $file = new_file(@{ $mix[$number] }) or next;
        my $count = $number % 3 == 2 ? 3 : 2;
        my @bounds = bounds($file, $count);
        my @order = $count == 2 ? (1, 0) : ([2, 0, 1], [1, 2, 0], [0, 2, 1])[rand 3]->@*;
        for (@order) { piece($file, \@bounds, $_); some_gap() }
    }
} elsif ($scenario eq 'missing') {
    for my $number (0 .. 20) {
        my $file = new_file(@{ $mix[$number % @mix] }) or next;
        $file->{expect} = 'missing';
        my @bounds = bounds($file, 3);
        my $lost = int rand 3;
        for (0 .. 2) { next if $_ == $lost; piece($file, \@bounds, $_); some_gap() }
    }
} elsif ($scenario eq 'tails') {
    for my $number (0 .. 45) {
        my @kinds = @{ $mix[$number % @mix] };
        my ($head, $tail) = (new_file(@kinds), new_file(@kinds));
        next unless $head && $tail;
        $_->{expect} = 'missing' for $head, $tail;
        my @first = bounds($head, 2);
        my @second = bounds($tail, 2);
        piece($head, \@first, 0);
        some_gap() if rand() < 0.3;
        piece($tail, \@second, 1);
        some_gap() if rand() < 0.5;
    }
} elsif ($scenario eq 'healthy') {
    while (my $file = new_file(sort keys %kinds)) { put($file, 0, length $file->{bytes}); some_gap() }
} else { die "unknown scenario $scenario\n" }
some_gap();
close $out;

open my $manifest, '>', 'manifest' or die;
for my $file (@files) {
    my ($name) = $file->{path} =~ m{([^/]+)$};
    my ($kind) = $name =~ /\.([^.]+)$/;
    print $manifest join("\t", $file->{expect}, $kind, length $file->{bytes}, $name, join ',', map { "$_->[0]+$_->[1]" } @{ $file->{pieces} }), "\n";
}

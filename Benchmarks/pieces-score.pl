#!/usr/bin/perl
# What came back of the files of a manifest: exact, near (same length, at most one sector in twenty differs), and what was
# called God and is none of them. Files of the manifest that are expected as "other" are right when they come back, and count
# nowhere.
#
#   pieces-score.pl <tool> <manifest> <folder of files> <folder of what was recovered>
use strict;
use warnings;
use Digest::SHA;
use File::Find;

my ($tool, $manifest, $folder, $back) = @ARGV;
sub hash_of { my ($path) = @_; Digest::SHA->new(256)->addfile($path, 'b')->hexdigest }
my (@files, %by_hash, %by_size, %by_offset);
open my $in, '<', $manifest or die;
while (<$in>) {
    chomp;
    my ($expect, $kind, $size, $name, $pieces) = split /\t/;
    my ($offset) = $pieces =~ /^(\d+)/;
    my $file = { expect => $expect, kind => $kind, size => $size, name => $name, pieces => scalar(split /,/, $pieces), offset => $offset };
    push @files, $file;
    push @{ $by_hash{ hash_of("$folder/$name") } }, $file;
    push @{ $by_size{$size} }, $file;
}
my (%chance, @paths);
find({ no_chdir => 1, wanted => sub {
    return unless -f;
    if (/Gendannelsesrapport\.csv$/) {
        my ($below) = $File::Find::dir;
        open my $report, '<', $_ or die;
        while (<$report>) { my ($path, undef, undef, $level) = split /;/; $chance{"$below/$path"} = $level }
    } elsif (!/audit\.txt$|report\.xml$/) { push @paths, $_ }
} }, $back);
sub is_near {
    my ($path, $file) = @_;
    open my $left, '<:raw', $path or return 0;
    open my $right, '<:raw', "$folder/$file->{name}" or return 0;
    my ($differ, $sectors) = (0, 0);
    while (read $left, my $mine, 512) { read $right, my $theirs, 512; $sectors++; $differ++ if $mine ne $theirs }
    return $differ * 20 <= $sectors;
}
my (%levels, @false);
for my $path (sort @paths) {
    my $level = $chance{$path} // '-';
    my $found = $by_hash{ hash_of($path) };
    if ($found) {
        $levels{"exact $level"}++ if $found->[0]{expect} ne 'other';
        $_->{exact} = 1 for @$found;
        next;
    }
    my ($near) = grep { is_near($path, $_) } @{ $by_size{ -s $path } // [] };
    if ($near) { $near->{near} = 1; $levels{"near $level"}++ }
    if ($level eq 'God') { push @false, $path }
    $levels{"other $level"}++ unless $near;
}
@files = grep { $_->{expect} ne 'other' } @files;
my @whole = grep { $_->{expect} eq 'whole' } @files;
my $exact = grep { $_->{exact} } @files;
my $near = grep { $_->{near} && !$_->{exact} } @files;
printf "%-8s %3d files: exact %3d, near %3d, false God %d;  %s\n", $tool, scalar @files, $exact, $near, scalar @false,
    join ', ', map { "$_: $levels{$_}" } sort keys %levels;
print "    false God: $_\n" for @false;
my %kinds;
for my $file (@whole) { $kinds{ $file->{kind} }[0]++; $kinds{ $file->{kind} }[1]++ if $file->{exact} }
print '    by kind: ', join(', ', map { "$_ " . ($kinds{$_}[1] // 0) . "/$kinds{$_}[0]" } sort keys %kinds), "\n";
if ($ENV{PIECES_LOST}) { print "    lost: $_->{name} ($_->{pieces} pieces at $_->{offset})\n" for grep { !$_->{exact} } @whole }

#!/usr/bin/env perl
# Compares what a tool brought back with the files of Benchmarks/ext: how many deleted and living ones came back byte for
# byte, how many of them by their own name, how many that our report calls God are none of the files, and how many have the
# name of another file.
#
#   ext-score.pl tool manifest folder [only]       manifest: "deleted|living|other hash path"; only: a pattern for paths
use strict;
use warnings;
use Digest::MD5;
use File::Find;

my ($tool, $manifest, $folder, $only) = @ARGV;
my (%wanted, %known, %back, %named, %good, %hashes);
open(my $list, '<', $manifest) or die;
while (<$list>) {
    chomp;
    my ($state, $hash, $path) = split(/ /, $_, 3);
    $wanted{$state}{$path} = $hash;
    $known{$hash} = 1;
    $hashes{$1}{$hash} = 1 if $path =~ m{([^/]*)$};
}
for my $table (glob("'$folder/out/*/Gendannelsesrapport.csv'")) {
    my ($volume) = $table =~ m{^(.*)/};
    open(my $report, '<', $table) or die;
    while (<$report>) { $good{"$volume/$1"} = 1 if /^"?([^;]*?)"?;[^;]*;[^;]*;God;/; }
}
my ($wrong, $total, $pessimistic, @wrong, @misnamed) = (0, 0, 0);
find({ no_chdir => 1, wanted => sub {
    return if -l || !-f || /Gendannelsesrapport/ || ($only && $_ !~ /$only/);
    open(my $file, '<:raw', $_) or return;
    my $hash = Digest::MD5->new->addfile($file)->hexdigest;
    my $path = substr($_, length $folder);
    $total++;
    $back{$hash} = 1;
    push @{ $named{$hash} }, $path;
    my ($base) = $path =~ m{([^/]*)$};
    push @misnamed, $path if $known{$hash} && $hashes{$base} && !$hashes{$base}{$hash};
    $pessimistic++ if $known{$hash} && %good && !$good{$_};
    if (!$known{$hash} && -s $_ && $good{$_}) {
        $wrong++;
        push @wrong, $path;
    }
} }, $folder);
my @parts;
for my $state ('deleted', 'living') {
    my ($whole, $right, $all) = (0, 0, scalar keys %{ $wanted{$state} // {} });
    for my $path (keys %{ $wanted{$state} // {} }) {
        my ($name) = $path =~ m{(/[^/]*)$};
        my $hash = $wanted{$state}{$path};
        if ($back{$hash}) { $whole++; } elsif ($ENV{EXT_LOST}) { print "    lost $state $path\n"; }
        my $isNamed = grep { substr($_, -length($name)) eq $name } @{ $named{$hash} // [] };
        $right++ if $isNamed;
        print "    unnamed $path: @{ $named{$hash} }\n" if $ENV{EXT_LOST} && $back{$hash} && !$isNamed;
    }
    push @parts, "$state $all: $whole/$right" if $all;
}
printf "  %-12s %-50s of %d files, wrong God %d, wrong name %d, right and not God %d\n", $tool, join(', ', @parts), $total, $wrong,
    scalar @misnamed, $pessimistic;
if ($ENV{EXT_LOST}) { print "    wrong God $_\n" for @wrong; print "    wrong name $_\n" for @misnamed; }

#!/usr/bin/env perl
# Makes files for Benchmarks/ext: sounds and pictures with random content, texts, and a few of another kind. Their sizes are
# spread evenly over the powers of two, and each has its folder.
#
#   ext-files.pl folder prefix count seed [largest bytes]
use strict;
use warnings;
use File::Path qw(make_path);

my ($folder, $prefix, $count, $seed, $largest) = @ARGV;
$largest //= 4_000_000;
srand($seed);
open(my $random, '<:raw', '/dev/urandom') or die;

sub noise {
    my ($bytes) = @_;
    read($random, my $data, $bytes) if $bytes > 0;
    return $data // '';
}

sub wave {
    my $data = noise($_[0] > 44 ? ($_[0] - 44) & ~1 : 0); # chunks have an even length
    return 'RIFF' . pack('V', 36 + length $data) . 'WAVEfmt ' . pack('VvvVVvv', 16, 1, 1, 44100, 88200, 2, 16) . 'data' . pack('V', length $data) . $data;
}

sub bitmap {
    my $rows = int(($_[0] - 54) / 192);
    $rows = 1 if $rows < 1;
    return 'BM' . pack('VvvVVVVvvVVVVVV', 54 + $rows * 192, 0, 0, 54, 40, 64, $rows, 1, 24, 0, $rows * 192, 2835, 2835, 0, 0) . noise($rows * 192);
}

sub text { return join('', map { "line $_ of $prefix " . int(rand(1e9)) . "\n" } 1 .. 1 + int($_[0] / 30)); }

for my $number (0 .. $count - 1) {
    my $size = int(60 * ($largest / 60)**rand());
    my $kind = $number % 4;
    my $sub = sprintf('%s/%s-folder%02d%s', $folder, $prefix, $number / 20, $number % 40 >= 30 ? '/inner' : '');
    make_path($sub);
    my $name = sprintf('%s/%s%04d.%s', $sub, $prefix, $number, ('wav', 'bmp', 'txt', 'dat')[$kind]);
    open(my $file, '>:raw', $name) or die "$name: $!";
    print $file $kind == 0 ? wave($size) : $kind == 1 ? bitmap($size) : $kind == 2 ? text($size) : noise($size);
    close($file);
}

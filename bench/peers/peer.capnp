@0xb1f0a8d3c5e7924f;

interface Peer {
  request @0 (value :Data) -> (result :Data);
  query @1 (value :Data) -> (answer :Data);
}

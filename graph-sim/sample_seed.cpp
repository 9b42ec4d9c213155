// The sample service that is there when nothing else was asked for.
#include "seed.h"

namespace graph_sim {

std::string_view sample_seed()
{
    return R"json({
"accounts": [
  {"name": "alice", "kind": "business", "display_name": "Alice Example", "email": "alice@contoso.example",
   "tokens": ["alice-token"], "refresh_tokens": ["alice-refresh"],
   "drive": {"children": [
     {"name": "Welcome.txt", "text": "Welcome. This is a simulated OneDrive: look around, nothing can break.\n"},
     {"name": "hello.txt", "text": "hello world", "modified": "2024-04-30T20:00:00Z"},
     {"name": "empty.dat", "text": "", "modified": "2024-04-30T20:00:01Z"},
     {"name": "Documents", "children": [
       {"name": "Report 2024 #1.txt", "text": "First report.\n"},
       {"name": "100% done.txt", "text": "All of it.\n"},
       {"name": "plus+and&more='[x]@!$,;.txt", "text": "Punctuation.\n"},
       {"name": "Ämter und Straßen.txt", "text": "Grüße aus Köln.\n"},
       {"name": "報告書.txt", "text": "日本語のファイル。\n"},
       {"name": "Отчёт.txt", "text": "Отчёт за май.\n"},
       {"name": "Deep", "children": [{"name": "deeper", "children": [{"name": "and deeper", "children": [
         {"name": "bottom.txt", "text": "You have reached the bottom.\n"}]}]}]},
       {"name": "Empty folder", "folder": true}
     ]},
     {"name": "Data", "children": [
       {"name": "measurement.csv", "text": "time,value\n0,1.5\n1,1.7\n2,1.6\n"},
       {"name": "noise-10MiB.bin", "size": 10485760, "pattern": "random+7"},
       {"name": "one-GiB.bin", "size": 1073741824, "pattern": "cycle"},
       {"name": "four-GiB.bin", "size": 4294967296, "pattern": "cycle+1"}
     ]},
     {"name": "Many", "children": [
       {"generate": {"count": 1000, "name": "item-####.txt", "size": 1000, "pattern": "cycle"}}]},
     {"name": "Small files", "children": [
       {"generate": {"count": 200, "name": "small-###.bin", "size": 10240, "pattern": "random"}}]}
   ]},
   "shared": [
     {"owner": "carol", "path": "/Projects"},
     {"owner": "carol", "path": "/Budget 2024.csv"}],
   "follows": ["team-a", "research"]},

  {"name": "bob", "kind": "personal", "display_name": "Bob Example", "email": "bob@outlook.example",
   "tokens": ["bob-token"], "refresh_tokens": ["bob-refresh"],
   "drive": {"children": [
     {"name": "notes.txt", "text": "Buy milk.\n", "modified": "2024-03-01T00:00:00.753Z"},
     {"name": "empty.dat", "text": ""},
     {"name": "Bilder", "children": [
       {"name": "Urlaub am Meer.jpg", "size": 2500000, "pattern": "random+3"},
       {"name": "Größe #2 (50%).jpg", "size": 1500000, "pattern": "random+4"}]},
     {"name": "Music", "children": [{"name": "Album", "children": [
       {"generate": {"count": 12, "name": "track-##.mp3", "size": 300000, "pattern": "random+9"}}]}]}
   ]},
   "shared": [{"owner": "dora", "path": "/Holiday photos"}, {"owner": "dora", "path": "/recipe.md"}]},

  {"name": "carol", "kind": "business", "display_name": "Carol Example", "email": "carol@contoso.example",
   "tokens": ["carol-token"], "refresh_tokens": ["carol-refresh"],
   "drive": {"children": [
     {"name": "Projects", "children": [
       {"name": "plan.md", "text": "# Plan\n\n1. Begin\n2. End\n"},
       {"name": "Phase 1", "children": [{"name": "results #1.csv", "text": "a,b\n1,2\n"}]},
       {"name": "raw.bin", "size": 5000000, "pattern": "random+11"}]},
     {"name": "Budget 2024.csv", "text": "item,amount\ncoffee,250\n"},
     {"name": "private.txt", "text": "Nobody else sees this.\n"}
   ]},
   "follows": ["team-a"]},

  {"name": "dora", "kind": "personal-new", "display_name": "Dora Example", "email": "dora@outlook.example",
   "tokens": ["dora-token"], "refresh_tokens": ["dora-refresh"],
   "drive": {"children": [
     {"name": "Holiday photos", "children": [
       {"name": "beach.jpg", "size": 1200000, "pattern": "random+21"},
       {"name": "2023", "children": [{"name": "snow.jpg", "size": 900000, "pattern": "random+22"}]}]},
     {"name": "recipe.md", "text": "# Pancakes\n\nFlour, milk, eggs.\n"}
   ]}}
],
"sites": [
  {"name": "team-a", "display_name": "Team A", "libraries": [
    {"name": "Documents", "children": [
      {"name": "Agenda.md", "text": "# Agenda\n"},
      {"name": "Minutes", "children": [
        {"name": "2024-05-02 kick-off.txt", "text": "Present: everybody.\n"}]}]},
    {"name": "Archive", "children": [
      {"name": "old.zip", "size": 750000, "pattern": "random+31"}]}]},
  {"name": "research", "display_name": "Forschung und Lehre", "libraries": [
    {"name": "Documents", "children": [
      {"name": "Satzung.txt", "text": "Paragraph 1.\n"}]},
    {"name": "Messdaten", "children": [
      {"name": "Lauf 1", "children": [
        {"name": "kanal #1.bin", "size": 3000000, "pattern": "random+41"},
        {"name": "kanal #2.bin", "size": 3000000, "pattern": "random+42"}]}]}]}
]
})json";
}

} // namespace graph_sim

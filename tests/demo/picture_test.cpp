// The demo's columns, and how the road becomes a picture.
#include "testbed/demo/arrows.h"
#include "testbed/demo/columns.h"
#include "testbed/demo/picture.h"

#include <gmock/gmock.h>

#include <regex>

using picture::Arrow;
using picture::Lane;
using road::Actor;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::Not;

namespace {

std::string repeated(const std::string& text, int times) {
  std::string result;
  while (times-- > 0) result += text;
  return result;
}

std::vector<std::string> textsOf(const std::vector<road::Line>& lines) {
  std::vector<std::string> texts;
  for (const Arrow& arrow : arrowsOf(lines)) texts.push_back(arrow.text);
  return texts;
}

size_t count(const std::string& text, const char* pattern) {
  std::regex expression(pattern);
  return size_t(std::distance(std::sregex_iterator(text.begin(), text.end(), expression), {}));
}

} // namespace

TEST(Columns, ALineThatFitsStaysAsItIs) {
  EXPECT_EQ(columns::wrapped("", 28), "");
  EXPECT_EQ(columns::wrapped(repeated("n", 72), 28), repeated("n", 72));
}

TEST(Columns, BreakAtTheLastSpaceThatFits) {
  EXPECT_EQ(columns::wrapped(repeated("n", 50) + " and " + repeated("m", 30), 28),
            repeated("n", 50) + " and\n" + repeated(" ", 28) + repeated("m", 30));
  EXPECT_EQ(columns::wrapped(repeated("n", 72) + " m", 28),
            repeated("n", 72) + "\n" + repeated(" ", 28) + "m");
}

TEST(Columns, AWordThatIsTooLongIsParted) {
  EXPECT_EQ(columns::wrapped(repeated("n", 150), 30), repeated("n", 70) + "\n" + repeated(" ", 30) +
                                                          repeated("n", 70) + "\n" +
                                                          repeated(" ", 30) + repeated("n", 10));
}

TEST(Columns, CountLettersAndPartNone) {
  EXPECT_EQ(columns::wrapped(repeated("\u00E9", 72), 28), repeated("\u00E9", 72));
  EXPECT_EQ(columns::wrapped(repeated("\u20AC", 101), 0), repeated("\u20AC", 100) + "\n\u20AC");
}

TEST(Arrows, AnEventGoesFromTheFrameworkThroughThePlugIn) {
  auto arrows = arrowsOf({{Actor::framework, "check", "step delegate", "tells its delegate x:"},
                          {Actor::plugin, "main", "event x", "raises the event x"},
                          {Actor::program, "main", "answer x", "answers x with true"}});
  ASSERT_EQ(arrows.size(), 2u);
  EXPECT_EQ(arrows[0].from, Lane::plugin);
  EXPECT_EQ(arrows[0].to, Lane::program);
  EXPECT_EQ(arrows[0].thread, "main");
  EXPECT_EQ(arrows[0].cause, "check");
  EXPECT_FALSE(arrows[0].answer);
  EXPECT_EQ(arrows[1].to, Lane::plugin);
  EXPECT_EQ(arrows[1].cause, "");
  EXPECT_TRUE(arrows[1].answer);
}

TEST(Arrows, AWindowIsForThePersonAndNotForTheProgram) {
  auto arrows =
      arrowsOf({{Actor::framework, "main", "step asks A window", "asks: \"A window\" Yes / No"},
                {Actor::person, "main", "step answered A window", "presses Yes"},
                {Actor::framework, "main", "step shows A second", "shows: A second"}});
  ASSERT_EQ(arrows.size(), 3u);
  EXPECT_EQ(arrows[0].from, Lane::framework);
  EXPECT_EQ(arrows[0].to, Lane::person);
  EXPECT_EQ(arrows[1].from, Lane::person);
  EXPECT_EQ(arrows[1].to, Lane::framework);
  EXPECT_TRUE(arrows[1].answer);
  EXPECT_EQ(arrows[1].text, "presses Yes");
  EXPECT_EQ(arrows[2].to, Lane::person);
}

TEST(Arrows, WhatTheFrameworkSaysAndNobodyHearsStays) {
  EXPECT_THAT(textsOf({{Actor::framework, "main", "step delegate", "tells its delegate x:"},
                       {Actor::framework, "main", "step finished", "is done"}}),
              ElementsAre("tells its delegate x:", "is done"));
}

TEST(Arrows, LeaveOutWhatIsInsideOfAnEventAndWhatComesAfterTheEnd) {
  EXPECT_THAT(textsOf({{Actor::nobody, "main", "heading", "The check"},
                       {Actor::plugin, "main", "event x", "raises the event x"},
                       {Actor::program, "main", "call y", "calls y", 1},
                       {Actor::program, "main", "", "saves its documents"},
                       {Actor::nobody, "main", "heading", road::lastStage},
                       {Actor::program, "main", "call z", "calls z"}}),
              ElementsAre("raises x"));
}

TEST(Arrows, SayWhatIsTheSameInEveryRun) {
  EXPECT_THAT(
      textsOf({{Actor::program, "main", "call x", "calls x with SUAppcastItemKVZ#7 (release 3.0)"},
               {Actor::framework, "main", "step fetching", "fetches http://127.0.0.1:4711/a.xml"},
               {Actor::framework, "main", "step downloaded", "has downloaded 2100093 bytes"},
               {Actor::program, "main", "answer x", "answers x with \"~/Demo.app\""},
               {Actor::framework, "main", "step relaunching", "relaunches: ~/Demo.app 4550"}}),
      ElementsAre("calls x with release 3.0", "fetches http://…/a.xml", "sends the archive",
                  "answers x with \"/…/Demo.app\"", "has the new version started"));
}

TEST(Picture, HasOneArrowForEachStep) {
  std::string svg =
      picture::draw("A title", {{Lane::program, Lane::plugin, false, "main", "calls", ""},
                                {Lane::plugin, Lane::program, true, "main", "answers", ""},
                                {Lane::framework, Lane::framework, false, "worker", "works", ""},
                                {Lane::plugin, Lane::program, false, "main", "raises", "worker"}});
  EXPECT_EQ(count(svg, " l-?7 -4 v8 z"), 4u) << "heads of arrows";
  EXPECT_EQ(count(svg, "class=\"stroke back\""), 1u);
  EXPECT_EQ(count(svg, "<g class=\"t1\">"), 2u) << "the worker's step, and its part of the event";
  EXPECT_EQ(count(svg, ">main</text>"), 2u) << "a thread's name stands where it begins";
  EXPECT_EQ(count(svg, ">dashed: the answer<"), 1u);
  EXPECT_THAT(svg, HasSubstr("<title id=\"title\">A title</title>"));
}

TEST(Picture, EscapesAndCutsItsTexts) {
  std::string svg = picture::draw(
      "<&>", {{Lane::program, Lane::plugin, false, "a\"b", repeated("\u00E9", 80), ""}});
  EXPECT_THAT(svg, HasSubstr("&lt;&amp;&gt;"));
  EXPECT_THAT(svg, HasSubstr(">a&quot;b<"));
  EXPECT_THAT(svg, HasSubstr(">" + repeated("\u00E9", 65) + "…<"));
  EXPECT_THAT(svg, Not(HasSubstr(repeated("\u00E9", 66))));
}

TEST(Picture, HasAColourForEveryThread) {
  std::vector<Arrow> arrows;
  for (int thread = 0; thread < 9; ++thread)
    arrows.push_back({Lane::framework, Lane::server, false, "t" + std::to_string(thread), "", ""});
  std::string svg = picture::draw("", arrows);
  EXPECT_EQ(count(svg, "<g class=\"t[0-3]\">"), 9u);
  EXPECT_EQ(count(svg, "\\.t3 \\.stroke \\{ stroke: #[0-9a-f]{6}; \\}"), 2u) << "light and dark";
}

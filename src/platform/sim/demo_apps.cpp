#include "platform/sim/demo_apps.h"

#include <string>

namespace glimmerstrand::platform::sim {

namespace {

ElementSpec menuBar(std::vector<std::string> titles) {
  auto bar = element("AXMenuBar").withFrame(0, 0, 1440, 24);
  double x = 10;
  for (auto& title : titles) {
    bar.child(element("AXMenuBarItem").title(title).withFrame(x, 0, 60, 24).withActions({"AXPress"}));
    x += 60;
  }
  return bar;
}

AppSpec calculator() {
  AppSpec app;
  app.pid = demoCalculatorPid;
  app.bundleId = "com.example.calculator";
  app.name = "Calculator";
  app.names = {{"en", "Calculator"}, {"ja", "計算機"}};
  app.frontmost = true;
  auto window = element("AXWindow").title("Calculator").subrole("AXStandardWindow").withFrame(100, 100, 240, 320);
  window.child(element("AXStaticText").withKey("display").value("0").withFrame(110, 110, 220, 40));
  // Keypad: four rows of three digit keys, then the operators in a column.
  const char* keys[4][3] = {{"7", "8", "9"}, {"4", "5", "6"}, {"1", "2", "3"}, {"0", ".", "C"}};
  const char* names[4][3] = {
      {"seven", "eight", "nine"}, {"four", "five", "six"}, {"one", "two", "three"}, {"zero", "point", "clear"}};
  for (int row = 0; row < 4; ++row)
    for (int column = 0; column < 3; ++column) {
      std::string label = keys[row][column];
      auto button = element("AXButton")
                        .withKey(names[row][column])
                        .title(label)
                        .withFrame(110 + column * 55, 160 + row * 50, 50, 40);
      if (label == "C")
        button.pressDoes({setEffect("display", "AXValue", "0")});
      else
        button.pressDoes({appendEffect("display", label)});
      window.child(std::move(button));
    }
  const char* operators[] = {"+", "-", "×", "="};
  const char* operatorKeys[] = {"plus", "minus", "times", "equals"};
  for (int i = 0; i < 4; ++i)
    window.child(element("AXButton")
                     .withKey(operatorKeys[i])
                     .title(operators[i])
                     .withFrame(275, 160 + i * 50, 50, 40)
                     .pressDoes({appendEffect("display", operators[i])}));
  app.windows.push_back(std::move(window));
  app.menuBar = menuBar({"Calculator", "Edit", "View", "Window", "Help"});
  return app;
}

AppSpec editor() {
  AppSpec app;
  app.pid = demoEditorPid;
  app.bundleId = "com.example.texteditor";
  app.name = "Text Editor";
  app.names = {{"en", "Text Editor"}, {"ja", "テキストエディタ"}};
  auto window = element("AXWindow").title("Untitled").subrole("AXStandardWindow").withFrame(380, 100, 640, 480);
  auto toolbar = element("AXToolbar").withFrame(380, 128, 640, 36);
  toolbar.child(element("AXCheckBox")
                    .withKey("bold")
                    .title("Bold")
                    .value(0)
                    .withFrame(390, 132, 60, 28)
                    .pressDoes({toggleEffect("")}));
  toolbar.child(element("AXButton")
                    .withKey("save")
                    .title("Save")
                    .withFrame(460, 132, 60, 28)
                    .pressDoes({setEffect("status", "AXValue", "Saved")}));
  toolbar.child(element("AXTextField")
                    .withKey("search")
                    .subrole("AXSearchField")
                    .placeholder("Search")
                    .withFrame(800, 132, 200, 28)
                    .withSettable({"AXValue", "AXFocused"}));
  window.child(std::move(toolbar));
  window.child(element("AXTextArea")
                   .withKey("text")
                   .description("Document")
                   .value("")
                   .withFrame(380, 164, 640, 392)
                   .withSettable({"AXValue", "AXFocused"})
                   .markFocused());
  window.child(element("AXStaticText").withKey("status").value("Edited").withFrame(380, 556, 640, 24));
  app.windows.push_back(std::move(window));
  app.menuBar = menuBar({"Text Editor", "File", "Edit", "Format", "Window", "Help"});
  return app;
}

AppSpec longList() {
  AppSpec app;
  app.pid = demoListPid;
  app.bundleId = "com.example.longlist";
  app.name = "Long List";
  app.names = {{"en", "Long List"}, {"ja", "長いリスト"}};
  auto window = element("AXWindow").title("2,000 rows").subrole("AXStandardWindow").withFrame(1040, 100, 360, 600);
  auto list = element("AXList").withKey("list").withFrame(1040, 128, 360, 2000 * 24);
  for (int i = 0; i < 2000; ++i) {
    std::string label = "Row " + std::to_string(i + 1);
    list.child(element("AXRow")
                   .withKey("row" + std::to_string(i + 1))
                   .withFrame(1040, 128 + i * 24, 360, 24)
                   .withActions({"AXPress"})
                   .child(element("AXStaticText").value(label).withFrame(1048, 128 + i * 24, 344, 24)));
  }
  window.child(element("AXScrollArea").withKey("scroll").withFrame(1040, 128, 360, 572).child(std::move(list)));
  app.windows.push_back(std::move(window));
  app.menuBar = menuBar({"Long List", "File", "Edit", "Window", "Help"});
  return app;
}

// Installed, not running: a note with a Format menu whose items change it.
AppSpec notes() {
  AppSpec app;
  app.pid = demoNotesPid;
  app.bundleId = "com.example.notes";
  app.name = "Notes";
  app.names = {{"en", "Notes"}, {"ja", "メモ"}};
  app.running = false;
  auto window = element("AXWindow").title("Note").subrole("AXStandardWindow").withFrame(200, 160, 480, 360);
  window.child(element("AXTextArea")
                   .withKey("note")
                   .identifier("note")
                   .value("")
                   .withFrame(200, 188, 480, 332)
                   .withSettable({"AXValue", "AXFocused"})
                   .markFocused());
  app.windows.push_back(std::move(window));
  auto format = element("AXMenu");
  format.child(element("AXMenuItem")
                   .identifier("signature")
                   .title("Insert Signature")
                   .attribute("AXMenuItemCmdChar", "S")
                   .pressDoes({appendEffect("note", "\n— sent from Notes")}));
  format.child(element("AXMenuItem").identifier("clear").title("Clear").pressDoes({setEffect("note", "AXValue", "")}));
  auto bar = menuBar({"Notes", "File", "Edit"});
  bar.child(element("AXMenuBarItem").title("Format").withFrame(190, 0, 60, 24).child(std::move(format)));
  app.menuBar = std::move(bar);
  return app;
}

}  // namespace

DesktopSpec demoDesktop() {
  DesktopSpec spec;
  spec.apps = {calculator(), editor(), longList(), notes()};
  return spec;
}

}  // namespace glimmerstrand::platform::sim

// The groups of the menu stand open on every page: what is in them is what a visitor looks for.
// Doxygen makes the entries of a level when it is shown first; its groups are on the second.
const addEntries = getNode;
getNode = (menu, parent) => {
    addEntries(menu, parent);
    if (parent.depth <= 1)
        parent.children.forEach(entry => expandNode(menu, entry));
};
